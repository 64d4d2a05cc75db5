// vrk/host/frame_names.hpp: names the code addresses of a captured stack for
// the default host's printed traces: function and offset, module and the
// offset inside it, and, where debug information can be read, source file
// and line. Also the one format of a frame line, which `vrkexc symbolize`
// writes as well.
//
// Used only when a trace is printed, never while one is captured: it may
// allocate (the demangler, the symbol tables and the debug-information reader
// do) and it takes a process-wide lock for its tables.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vrk/ext/noncopyable.hpp"
#include "vrk/iosfwd.hpp"

namespace vrk::host {

// What is known of one frame; every text may be null. The texts stay valid
// until the next resolve on the same frame_names, or its end.
struct frame_info {
    const char* p_function_ = nullptr; // demangled where it is a C++ name
    uint64_t function_offset_ = 0;     // of the address from the function's start
    const char* p_module_ = nullptr;   // the module's file name, without directories
    uint64_t module_offset_ = 0;       // the address as the module is linked; 0 unknown
    const char* p_file_ = nullptr;
    int line_ = 0;
};

// Writes "#<index> 0x<address> function+0xoffset (module+0xoffset) at
// file:line", leaving out what is unknown, without a line end.
void write_frame(vrk::ostream& os, unsigned index, uint64_t address, const frame_info& info);

// True for a frame of the standard library's invoke, thread and function
// machinery (std::__invoke_impl, std::thread::_State_impl, ...), which a
// trace shows as a count.
bool is_runtime_machinery(const char* function) noexcept;

// One printing pass over a trace. Holds the lock of the symbol tables (and
// of the debug-information session, if the build has one) while it lives.
class frame_names : private vrk::non_copyable {
public:
    frame_names();
    ~frame_names();

    // Resolves the return address `pc` of this process. The names are those
    // of the call instruction in front of `pc`: a return address can point
    // past the end of a function whose last instruction is a call that does
    // not return. The module offset is that of `pc` itself.
    frame_info resolve(const void* pc);

    // Resolves the return address `module_offset` of the ELF file at `path`
    // (which need not be loaded), as a trace printed elsewhere names it.
    frame_info resolve_in_file(const char* path, uint64_t module_offset);

    // True when this build reads debug information (source lines).
    static bool reads_debug_info() noexcept;

private:
    const char* demangle_(const char* name);
    // Module, offset and, from the file's symbol table, the function.
    frame_info from_symbol_table_(const char* path, uint64_t module_offset);

    char* p_demangled_ = nullptr; // the demangler's buffer, reused
    size_t demangled_size_ = 0;
    [[maybe_unused]] bool refreshed_ = false; // the module list was read again during this pass
};

} // namespace vrk::host
