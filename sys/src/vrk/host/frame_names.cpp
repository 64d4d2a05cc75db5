// Names for the frames of a printed stack trace: the dynamic linker's
// symbols always, and with elfutils' libdw (VRK_WITH_LIBDW) the symbol table
// and debug information of each module for source lines and for functions
// that have no dynamic symbol (static functions, anonymous namespaces,
// executables linked without -rdynamic).
#include "vrk/host/frame_names.hpp"

#include <cxxabi.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "vrk/ostream.hpp"

#if VRK_WITH_LIBDW
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#endif

namespace vrk::host {

namespace {

// Writes `name` demangled when it is a mangled C++ name, as it is otherwise.
void write_function_name(vrk::ostream& os, const char* name) {
    int status = -1;
    char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    os << ' ' << (status == 0 && demangled != nullptr ? demangled : name);
    std::free(demangled);
}

void write_offset(vrk::ostream& os, unsigned long offset) {
    char text[24];
    const int n = std::snprintf(text, sizeof text, "+0x%lx", offset);
    os.write(text, n);
}

const char* base_name(const char* path) noexcept {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

} // namespace

#if VRK_WITH_LIBDW

namespace {

// Separate debug files are looked up locally by build id only: printing an
// exception must not start a download of debug information.
int find_debuginfo_locally(Dwfl_Module* mod, void** userdata, const char* modname, Dwarf_Addr base,
                           const char* file_name, const char* debuglink_file,
                           GElf_Word debuglink_crc, char** debuginfo_file_name) {
    return dwfl_build_id_find_debuginfo(mod, userdata, modname, base, file_name, debuglink_file,
                                        debuglink_crc, debuginfo_file_name);
}

char* g_debuginfo_path = nullptr;
const Dwfl_Callbacks CALLBACKS = {dwfl_linux_proc_find_elf, find_debuginfo_locally, nullptr,
                                  &g_debuginfo_path};

// One session for the process: reading a module's tables is the expensive
// part, and they stay valid while the module stays mapped. libdw sessions are
// not thread-safe, hence the lock, held for a whole trace. The session is
// never ended: a trace may be printed from another object's destructor at
// exit.
std::mutex g_session_lock;
Dwfl* g_dwfl = nullptr;
pid_t g_dwfl_pid = 0;

// (Re)reads the module list of this process. Adds to the old list, so that
// what was read of modules still mapped is kept.
void report_modules() {
    const pid_t pid = ::getpid();
    if (g_dwfl != nullptr && g_dwfl_pid != pid) {
        dwfl_end(g_dwfl); // a forked child: the same files, but start clean
        g_dwfl = nullptr;
    }
    if (g_dwfl == nullptr) {
        g_dwfl = dwfl_begin(&CALLBACKS);
        if (g_dwfl == nullptr)
            return;
        g_dwfl_pid = pid;
        dwfl_report_begin(g_dwfl);
    } else {
        dwfl_report_begin_add(g_dwfl);
    }
    dwfl_linux_proc_report(g_dwfl, pid);
    dwfl_report_end(g_dwfl, nullptr, nullptr);
}

// The module holding `addr`; the list is read again once when none does (a
// library loaded since the last trace).
Dwfl_Module* module_of(Dwarf_Addr addr, bool& refreshed) {
    if (g_dwfl == nullptr) {
        report_modules();
        refreshed = true;
    }
    if (g_dwfl == nullptr)
        return nullptr;
    Dwfl_Module* mod = dwfl_addrmodule(g_dwfl, addr);
    if (mod == nullptr && !refreshed) {
        report_modules();
        refreshed = true;
        mod = g_dwfl != nullptr ? dwfl_addrmodule(g_dwfl, addr) : nullptr;
    }
    return mod;
}

// The compilation unit holding `addr`, and the bias to subtract from `addr`
// to get its DWARF addresses. The address-range table answers directly; clang
// does not emit that table by default, so without an answer the units are
// searched one by one.
Dwarf_Die* unit_of(Dwfl_Module* mod, Dwarf_Addr addr, Dwarf_Addr& bias) {
    if (Dwarf_Die* cu = dwfl_module_addrdie(mod, addr, &bias))
        return cu;
    Dwarf_Die* cu = nullptr;
    while ((cu = dwfl_module_nextcu(mod, cu, &bias)) != nullptr)
        if (dwarf_haspc(cu, addr - bias) > 0)
            return cu;
    return nullptr;
}

// The name of the function whose code holds `addr` from the debug
// information: the outermost subprogram of its scopes, so that it names the
// same function as a symbol would even where code was inlined into it.
// Sets `entry` to its entry address when known.
const char* debug_info_function(Dwfl_Module* mod, Dwarf_Addr addr, Dwarf_Addr& entry) {
    Dwarf_Addr bias = 0;
    Dwarf_Die* cu = unit_of(mod, addr, bias);
    if (cu == nullptr)
        return nullptr;
    Dwarf_Die* scopes = nullptr;
    const int n = dwarf_getscopes(cu, addr - bias, &scopes);
    const char* name = nullptr;
    for (int i = n - 1; i >= 0 && name == nullptr; --i) {
        if (dwarf_tag(&scopes[i]) != DW_TAG_subprogram)
            continue;
        Dwarf_Attribute attr;
        name = dwarf_formstring(dwarf_attr_integrate(&scopes[i], DW_AT_linkage_name, &attr));
        if (name == nullptr)
            name =
                dwarf_formstring(dwarf_attr_integrate(&scopes[i], DW_AT_MIPS_linkage_name, &attr));
        if (name == nullptr)
            name = dwarf_diename(&scopes[i]);
        Dwarf_Addr low = 0;
        if (name != nullptr && dwarf_entrypc(&scopes[i], &low) == 0)
            entry = low + bias;
    }
    std::free(scopes);
    return name;
}

} // namespace

frame_names::frame_names() { g_session_lock.lock(); }

frame_names::~frame_names() { g_session_lock.unlock(); }

bool frame_names::reads_debug_info() noexcept { return true; }

void frame_names::write(vrk::ostream& os, const void* pc) {
    const auto ret = reinterpret_cast<uintptr_t>(pc);
    const uintptr_t call = ret - 1;
    Dl_info info{};
    const bool have_dl = dladdr(reinterpret_cast<const void*>(call), &info) != 0;
    Dwfl_Module* mod = module_of(call, refreshed_);

    // Function: the dynamic symbol, else the symbol table (local symbols
    // included), else the debug information.
    if (have_dl && info.dli_sname != nullptr) {
        write_function_name(os, info.dli_sname);
        write_offset(os, ret - reinterpret_cast<uintptr_t>(info.dli_saddr));
    } else if (mod != nullptr) {
        GElf_Off offset = 0;
        GElf_Sym sym;
        if (const char* name =
                dwfl_module_addrinfo(mod, call, &offset, &sym, nullptr, nullptr, nullptr)) {
            write_function_name(os, name);
            write_offset(os, static_cast<unsigned long>(offset + 1));
        } else {
            Dwarf_Addr entry = 0;
            if (const char* fn = debug_info_function(mod, call, entry)) {
                write_function_name(os, fn);
                if (entry != 0 && entry <= call)
                    write_offset(os, ret - entry);
            }
        }
    }

    if (have_dl && info.dli_fname != nullptr)
        os << " (" << base_name(info.dli_fname) << ')';
    else if (mod != nullptr)
        if (const char* name = dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                nullptr, nullptr))
            os << " (" << base_name(name) << ')';

    if (mod != nullptr) {
        Dwarf_Addr bias = 0;
        if (Dwarf_Die* cu = unit_of(mod, call, bias)) {
            if (Dwarf_Line* line = dwarf_getsrc_die(cu, call - bias)) {
                int lineno = 0;
                const char* file = dwarf_linesrc(line, nullptr, nullptr);
                if (file != nullptr && dwarf_lineno(line, &lineno) == 0)
                    os << " at " << file << ':' << lineno;
            }
        }
    }
}

#else // !VRK_WITH_LIBDW

frame_names::frame_names() = default;

frame_names::~frame_names() = default;

bool frame_names::reads_debug_info() noexcept { return false; }

// The dynamic linker knows exported symbols only: functions of an executable
// need -rdynamic, static functions get the module alone.
void frame_names::write(vrk::ostream& os, const void* pc) {
    const auto ret = reinterpret_cast<uintptr_t>(pc);
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(ret - 1), &info) == 0)
        return;
    if (info.dli_sname != nullptr) {
        write_function_name(os, info.dli_sname);
        write_offset(os, ret - reinterpret_cast<uintptr_t>(info.dli_saddr));
    }
    if (info.dli_fname != nullptr)
        os << " (" << base_name(info.dli_fname) << ')';
}

#endif

} // namespace vrk::host
