// Names for the frames of a printed stack trace: the module and the offset
// inside it from the dynamic linker; function names from the module's full
// symbol table (read from its file once and kept), else its dynamic symbols;
// with elfutils' libdw (VRK_WITH_LIBDW) source lines and the names of
// functions found only in the debug information.
#include "vrk/host/frame_names.hpp"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "vrk/ext/heap_allocator.hpp"
#include "vrk/host/elf_symbols.hpp"
#include "vrk/host/frame_walk.hpp"
#include "vrk/host/never_destroyed.hpp"
#include "vrk/ostream.hpp"

#if VRK_WITH_LIBDW
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#endif

namespace vrk::host {

namespace {

const char* base_name(const char* path) noexcept {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// Symbol tables of the files of recent traces, read once per file version
// (device, inode, size and modification time: a library rebuilt or replaced
// at one path is read again). Guarded by g_lock, which a frame_names holds
// for its pass. Never destroyed: a trace may be printed from a destructor
// that runs at exit.
struct cached_file {
    dev_t dev_;
    ino_t ino_;
    off_t size_;
    timespec mtime_;
    elf_symbols* p_symbols_;
};
constexpr unsigned CACHED_FILES = 16;
constinit cached_file g_files[CACHED_FILES] = {};
constinit unsigned g_next_file = 0; // the slot to reuse next
// Recursive: a trace that fails while printing inside a function that must
// not throw ends in the terminate handler, which prints on the same thread
// while the failed pass still holds the lock (its state is not in use then).
std::recursive_mutex g_lock;
constinit never_destroyed<vrk::heap_allocator> g_tables_heap;

const elf_symbols* symbols_of(const char* path) {
    struct stat st {};
    if (::stat(path, &st) != 0)
        return nullptr;
    for (const cached_file& f : g_files)
        if (f.p_symbols_ != nullptr && f.dev_ == st.st_dev && f.ino_ == st.st_ino &&
            f.size_ == st.st_size && f.mtime_.tv_sec == st.st_mtim.tv_sec &&
            f.mtime_.tv_nsec == st.st_mtim.tv_nsec)
            return f.p_symbols_;
    cached_file& slot = g_files[g_next_file++ % CACHED_FILES];
    elf_symbols::close(slot.p_symbols_);
    slot = cached_file{st.st_dev, st.st_ino, st.st_size, st.st_mtim,
                       elf_symbols::open(path, g_tables_heap.object_)};
    return slot.p_symbols_;
}

// The function holding the return address `module_offset` of the file at
// `path`, from its symbol table; false when none is known.
bool name_from_file(const char* path, uint64_t module_offset, const char*& name, uint64_t& offset) {
    const elf_symbols* symbols = module_offset != 0 ? symbols_of(path) : nullptr;
    uint64_t from_start = 0;
    name = symbols != nullptr ? symbols->find(module_offset - 1, &from_start) : nullptr;
    offset = from_start + 1;
    return name != nullptr;
}

// The file name of the program, read once (under g_lock): the dynamic linker
// names the program by its argv[0], which may be a link, a name chosen by
// whoever started it, or a process title written over it.
constinit char g_program_name[256] = {};
const char* program_name(const char* fallback) {
    if (g_program_name[0] == 0) {
        char path[4096];
        const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
        if (n <= 0)
            return fallback;
        path[n] = 0;
        constexpr char DELETED[] = " (deleted)"; // the file was replaced or removed
        const size_t len = static_cast<size_t>(n);
        if (len > sizeof DELETED && std::strcmp(path + len - (sizeof DELETED - 1), DELETED) == 0)
            path[len - (sizeof DELETED - 1)] = 0;
        // A file name is at most 255 bytes; a longer one is cut.
        const char* base = base_name(path);
        const size_t base_len = strnlen(base, sizeof g_program_name - 1);
        std::memcpy(g_program_name, base, base_len);
        g_program_name[base_len] = 0;
    }
    return g_program_name;
}

// The file mapped at `addr`, as /proc/self/maps names it (under g_lock); null
// when none is. The dynamic linker keeps a library's name as dlopen was given
// it, which may be relative to a directory the process has left since.
constinit char g_mapped_path[4096] = {};
const char* mapped_file(uintptr_t addr) {
    const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    char buf[8192];
    size_t have = 0;
    bool found = false;
    ssize_t n = 0;
    while (!found && (n = ::read(fd, buf + have, sizeof buf - have)) > 0) {
        have += static_cast<size_t>(n);
        char* line = buf;
        // "start-end perms offset device inode   path"
        for (char* nl;
             !found && (nl = static_cast<char*>(std::memchr(line, '\n', buf + have - line)));
             line = nl + 1) {
            *nl = 0;
            unsigned long lo = 0, hi = 0;
            int path = 0;
            found = std::sscanf(line, "%lx-%lx %*s %*s %*s %*s %n", &lo, &hi, &path) == 2 &&
                    addr >= lo && addr < hi && path > 0 && line[path] == '/' &&
                    std::snprintf(g_mapped_path, sizeof g_mapped_path, "%s", line + path) > 0;
        }
        have = static_cast<size_t>(buf + have - line);
        std::memmove(buf, line, have);
        if (have == sizeof buf) // a line longer than the buffer names no file we can open
            have = 0;
    }
    ::close(fd);
    return found ? g_mapped_path : nullptr;
}

// The module of the return address `ret` of this process, its offset there
// and the file to read its symbols from; false outside every module.
bool locate(uintptr_t ret, frame_info& info, Dl_info& dl, const char*& file) {
    link_map* map = nullptr;
    if (dladdr1(reinterpret_cast<const void*>(ret - 1), &dl, reinterpret_cast<void**>(&map),
                RTLD_DL_LINKMAP) == 0)
        return false;
    if (dl.dli_fname != nullptr && dl.dli_fname[0] != 0)
        info.p_module_ = base_name(dl.dli_fname);
    info.module_offset_ = ret - (map != nullptr ? map->l_addr : 0);
    // The main program's entry has no name; its file is found through /proc.
    const bool program = map == nullptr || map->l_name == nullptr || map->l_name[0] == 0;
    file = program ? "/proc/self/exe" : map->l_name;
    if (program)
        info.p_module_ = program_name(info.p_module_);
    else if (file[0] != '/')
        if (const char* mapped = mapped_file(ret - 1))
            file = mapped;
    return true;
}

// Writes `value` as "0x" and lower-case hexadecimal digits.
void write_hex(vrk::ostream& os, const char* prefix, uint64_t value) {
    char text[32];
    const int n = std::snprintf(text, sizeof text, "%s0x%llx", prefix,
                                static_cast<unsigned long long>(value));
    os.write(text, n);
}

} // namespace

void write_frame(vrk::ostream& os, unsigned index, uint64_t address, const frame_info& info) {
    char head[40];
    const int n = std::snprintf(head, sizeof head, "#%-2u 0x%016llx", index,
                                static_cast<unsigned long long>(address));
    os.write(head, n);
    if (info.p_function_ != nullptr) {
        os << ' ' << info.p_function_;
        write_hex(os, "+", info.function_offset_);
    }
    if (info.p_module_ != nullptr) {
        os << " (" << info.p_module_;
        if (info.module_offset_ != 0) // 0: unknown (no code lies at a module's start)
            write_hex(os, "+", info.module_offset_);
        os << ')';
    }
    if (info.p_file_ != nullptr)
        os << " at " << info.p_file_ << ':' << info.line_;
}

// A prefix counts at the start of the name or after the return type that
// the demangler writes in front of a function template's name, but not
// inside template arguments or parameters: `run<int, std::_Bind<...> >(...)`
// is the caller's own function.
bool is_runtime_machinery(const char* function) noexcept {
    static const char* const PREFIXES[] = {
        "std::__invoke",
        "std::invoke",
        "std::thread::_Invoker",
        "std::thread::_State_impl",
        "std::_Function_handler",
        "std::__future_base::",
        "std::_Bind",
    };
    int depth = 0; // of <> and () around the current character
    for (const char* at = function; *at != 0 && depth >= 0; ++at) {
        depth += (*at == '<' || *at == '(') - (*at == '>' || *at == ')');
        if (depth != 0 || (at != function && at[-1] != ' '))
            continue;
        for (const char* prefix : PREFIXES)
            if (std::strncmp(at, prefix, std::strlen(prefix)) == 0)
                return true;
    }
    return false;
}

frame_names::~frame_names() {
    std::free(p_demangled_); // the demangler's own (malloc) buffer
    g_lock.unlock();
}

// Demangles into the reused buffer; `name` itself when it is no C++ name.
const char* frame_names::demangle_(const char* name) {
    int status = -1;
    size_t size = demangled_size_;
    char* text = abi::__cxa_demangle(name, p_demangled_, &size, &status);
    if (status != 0 || text == nullptr)
        return name;
    p_demangled_ = text;
    demangled_size_ = size;
    return text;
}

frame_info frame_names::from_symbol_table_(const char* path, uint64_t module_offset) {
    frame_info info;
    info.p_module_ = base_name(path);
    info.module_offset_ = module_offset;
    const char* name = nullptr;
    if (name_from_file(path, module_offset, name, info.function_offset_))
        info.p_function_ = demangle_(name);
    return info;
}

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
// not thread-safe, hence g_lock, held for a whole trace. The session is
// never ended: a trace may be printed from another object's destructor at
// exit.
Dwfl* g_dwfl = nullptr;
pid_t g_dwfl_pid = 0;
unsigned long long g_dwfl_unloads = 0; // the linker's unload count when the list was read

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

// The line of the call in front of the return address `call` + 1.
void source_line(Dwfl_Module* mod, Dwarf_Addr call, frame_info& info) {
    Dwarf_Addr bias = 0;
    if (Dwarf_Die* cu = unit_of(mod, call, bias)) {
        if (Dwarf_Line* line = dwarf_getsrc_die(cu, call - bias)) {
            int lineno = 0;
            const char* file = dwarf_linesrc(line, nullptr, nullptr);
            if (file != nullptr && dwarf_lineno(line, &lineno) == 0) {
                info.p_file_ = file;
                info.line_ = lineno;
            }
        }
    }
}

// Sessions over files that are not loaded (`vrkexc symbolize`), one per
// file, kept for the process as the live session is.
struct offline_file {
    char path_[256];
    Dwfl* p_dwfl_;
    Dwfl_Module* p_mod_;
};
const Dwfl_Callbacks OFFLINE_CALLBACKS = {dwfl_build_id_find_elf, find_debuginfo_locally,
                                          dwfl_offline_section_address, &g_debuginfo_path};
offline_file g_offline[8];
unsigned g_next_offline = 0;

Dwfl_Module* offline_module(const char* path) {
    for (const offline_file& f : g_offline)
        if (f.p_dwfl_ != nullptr && std::strcmp(f.path_, path) == 0)
            return f.p_mod_;
    if (std::strlen(path) >= sizeof g_offline[0].path_)
        return nullptr;
    offline_file& slot = g_offline[g_next_offline++ % std::size(g_offline)];
    if (slot.p_dwfl_ != nullptr)
        dwfl_end(slot.p_dwfl_);
    slot.p_dwfl_ = dwfl_begin(&OFFLINE_CALLBACKS);
    if (slot.p_dwfl_ == nullptr)
        return nullptr;
    std::strcpy(slot.path_, path);
    // Placed where the file is linked: module offsets are its addresses.
    slot.p_mod_ = dwfl_report_elf(slot.p_dwfl_, base_name(path), path, -1, 0, false);
    dwfl_report_end(slot.p_dwfl_, nullptr, nullptr);
    return slot.p_mod_;
}

} // namespace

frame_names::frame_names() {
    g_lock.lock();
    // A module unloaded since the list was read may still cover addresses
    // that another library took over: start from a fresh list then.
    const unsigned long long unloads = library_unloads();
    if (g_dwfl != nullptr && unloads != g_dwfl_unloads) {
        dwfl_end(g_dwfl);
        g_dwfl = nullptr;
    }
    g_dwfl_unloads = unloads;
}

bool frame_names::reads_debug_info() noexcept { return true; }

frame_info frame_names::resolve(const void* pc) {
    frame_info info;
    const auto ret = reinterpret_cast<uintptr_t>(pc);
    const uintptr_t call = ret - 1;
    Dl_info dl{};
    const char* file = nullptr;
    const bool have_dl = locate(ret, info, dl, file);
    Dwfl_Module* mod = module_of(call, refreshed_);

    // Function: the dynamic symbol, else the symbol table (local symbols
    // included), else the debug information.
    if (have_dl && dl.dli_sname != nullptr) {
        info.p_function_ = demangle_(dl.dli_sname);
        info.function_offset_ = ret - reinterpret_cast<uintptr_t>(dl.dli_saddr);
    } else if (mod != nullptr) {
        GElf_Off offset = 0;
        GElf_Sym sym;
        if (const char* name =
                dwfl_module_addrinfo(mod, call, &offset, &sym, nullptr, nullptr, nullptr)) {
            info.p_function_ = demangle_(name);
            info.function_offset_ = offset + 1;
        } else {
            Dwarf_Addr entry = 0;
            if (const char* fn = debug_info_function(mod, call, entry)) {
                info.p_function_ = demangle_(fn);
                if (entry != 0 && entry <= call)
                    info.function_offset_ = ret - entry;
            }
        }
    }
    if (info.p_module_ == nullptr && mod != nullptr)
        if (const char* name = dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                nullptr, nullptr))
            info.p_module_ = base_name(name);
    if (mod != nullptr)
        source_line(mod, call, info);
    return info;
}

frame_info frame_names::resolve_in_file(const char* path, uint64_t module_offset) {
    frame_info info = from_symbol_table_(path, module_offset);
    if (Dwfl_Module* mod = module_offset != 0 ? offline_module(path) : nullptr) {
        if (info.p_function_ == nullptr) {
            Dwarf_Addr entry = 0;
            if (const char* fn = debug_info_function(mod, module_offset - 1, entry)) {
                info.p_function_ = demangle_(fn);
                info.function_offset_ =
                    entry != 0 && entry < module_offset ? module_offset - entry : 0;
            }
        }
        source_line(mod, module_offset - 1, info);
    }
    return info;
}

#else // !VRK_WITH_LIBDW

frame_names::frame_names() { g_lock.lock(); }

bool frame_names::reads_debug_info() noexcept { return false; }

// The module's symbol table, else the dynamic linker's exported symbols.
frame_info frame_names::resolve(const void* pc) {
    frame_info info;
    const auto ret = reinterpret_cast<uintptr_t>(pc);
    Dl_info dl{};
    const char* file = nullptr;
    if (!locate(ret, info, dl, file))
        return info;
    const char* name = nullptr;
    if (name_from_file(file, info.module_offset_, name, info.function_offset_)) {
        info.p_function_ = demangle_(name);
    } else if (dl.dli_sname != nullptr) {
        info.p_function_ = demangle_(dl.dli_sname);
        info.function_offset_ = ret - reinterpret_cast<uintptr_t>(dl.dli_saddr);
    }
    return info;
}

frame_info frame_names::resolve_in_file(const char* path, uint64_t module_offset) {
    return from_symbol_table_(path, module_offset);
}

#endif

} // namespace vrk::host
