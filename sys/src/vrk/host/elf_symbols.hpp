// vrk/host/elf_symbols.hpp: the function symbols of one ELF file, read from
// its full symbol table (static functions and anonymous namespaces
// included), for naming the frames of a trace without debug information.
//
// Used only when a trace is printed or symbolized, never while one is
// captured: it maps the file and allocates its index from the allocator it is
// given.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vrk/ext/noncopyable.hpp"
#include "vrk/memory.hpp"

namespace vrk::host {

class elf_symbols : private vrk::non_copyable {
public:
    // Indexes the function symbols of `image`, a 64-bit little-endian ELF
    // file of `size` bytes that must stay readable while this object lives:
    // those of .symtab, or of .dynsym when the file was stripped. Empty when
    // the image is no such file or the index cannot be allocated.
    elf_symbols(const unsigned char* image, size_t size, vrk::allocator& a) noexcept;
    ~elf_symbols();

    // Maps the file at `path` (read-only) and indexes it; empty when it
    // cannot be read.
    static elf_symbols* open(const char* path, vrk::allocator& a) noexcept;
    // Destroys an object made by open and unmaps its file.
    static void close(elf_symbols* symbols) noexcept;

    bool empty() const noexcept { return count_ == 0; }

    // The (mangled) name of the function whose code holds `addr`, an address
    // as the file is linked (a module offset as printed in a trace), and in
    // `*offset` the distance of `addr` from its start; null when no function
    // symbol covers `addr`.
    const char* find(uint64_t addr, uint64_t* offset) const noexcept;

private:
    struct entry {
        uint64_t addr_;
        uint64_t size_;
        const char* p_name_;
    };
    void index_(const unsigned char* image, size_t size) noexcept;

    vrk::allocator& alloc_;
    entry* p_entries_ = nullptr;
    size_t count_ = 0;
    const void* p_map_ = nullptr; // the file's mapping, when made by open
    size_t map_size_ = 0;
};

} // namespace vrk::host
