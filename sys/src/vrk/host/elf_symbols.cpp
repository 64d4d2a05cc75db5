// The function symbols of an ELF file, sorted by address for look-up.
#include "vrk/host/elf_symbols.hpp"

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace vrk::host {

namespace {

// A table of `count` records of type T at `offset`, when it lies inside the
// image; null otherwise. memcpy-free reads need the records aligned, which
// the ELF layout gives every table; a misaligned one is refused.
template <class T>
const T* table_at(const unsigned char* image, size_t size, uint64_t offset, uint64_t count) {
    if (offset > size || count > (size - offset) / sizeof(T) || offset % alignof(T) != 0)
        return nullptr;
    return reinterpret_cast<const T*>(image + offset);
}

} // namespace

elf_symbols::elf_symbols(const unsigned char* image, size_t size, vrk::allocator& a) noexcept
    : alloc_(a) {
    index_(image, size);
}

elf_symbols::~elf_symbols() {
    if (p_entries_ != nullptr)
        alloc_.deallocate(p_entries_);
}

void elf_symbols::index_(const unsigned char* image, size_t size) noexcept {
    const auto* eh = table_at<Elf64_Ehdr>(image, size, 0, 1);
    if (eh == nullptr || std::memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 ||
        eh->e_ident[EI_CLASS] != ELFCLASS64 || eh->e_ident[EI_DATA] != ELFDATA2LSB ||
        eh->e_shentsize != sizeof(Elf64_Shdr))
        return;
    const auto* sections = table_at<Elf64_Shdr>(image, size, eh->e_shoff, eh->e_shnum);
    if (sections == nullptr)
        return;
    // The full table when the file has one; the dynamic one is a subset.
    const Elf64_Shdr* symtab = nullptr;
    for (unsigned i = 0; i < eh->e_shnum; ++i)
        if (sections[i].sh_type == SHT_SYMTAB ||
            (sections[i].sh_type == SHT_DYNSYM && symtab == nullptr))
            symtab = &sections[i];
    if (symtab == nullptr || symtab->sh_link >= eh->e_shnum ||
        symtab->sh_entsize != sizeof(Elf64_Sym))
        return;
    const Elf64_Shdr& strtab = sections[symtab->sh_link];
    const uint64_t nsyms = symtab->sh_size / sizeof(Elf64_Sym);
    const auto* syms = table_at<Elf64_Sym>(image, size, symtab->sh_offset, nsyms);
    const auto* strs = table_at<char>(image, size, strtab.sh_offset, strtab.sh_size);
    // The names are read as C strings: the table must end in a NUL.
    if (syms == nullptr || strs == nullptr || strtab.sh_size == 0 || strs[strtab.sh_size - 1] != 0)
        return;
    const auto is_function = [&](const Elf64_Sym& s) {
        const unsigned type = ELF64_ST_TYPE(s.st_info);
        return (type == STT_FUNC || type == STT_GNU_IFUNC) && s.st_shndx != SHN_UNDEF &&
               s.st_name != 0 && s.st_name < strtab.sh_size;
    };
    const size_t n = static_cast<size_t>(std::count_if(syms, syms + nsyms, is_function));
    if (n == 0)
        return;
    p_entries_ = static_cast<entry*>(alloc_.allocateNoThrow(n * sizeof(entry), nullptr));
    if (p_entries_ == nullptr)
        return;
    for (uint64_t i = 0; i < nsyms; ++i)
        if (is_function(syms[i]))
            p_entries_[count_++] = entry{syms[i].st_value, syms[i].st_size, strs + syms[i].st_name};
    // By address; at one address (aliases) a symbol with a size before one
    // without, so that the look-up below meets the sized one last.
    std::sort(p_entries_, p_entries_ + count_, [](const entry& l, const entry& r) {
        return l.addr_ != r.addr_ ? l.addr_ < r.addr_ : l.size_ < r.size_;
    });
}

const char* elf_symbols::find(uint64_t addr, uint64_t* offset) const noexcept {
    // The last symbol starting at or before `addr`.
    const entry* end = p_entries_ + count_;
    const entry* e = std::upper_bound(static_cast<const entry*>(p_entries_), end, addr,
                                      [](uint64_t a, const entry& s) { return a < s.addr_; });
    if (e == p_entries_)
        return nullptr;
    --e;
    // A symbol without size (hand-written code) covers up to the next one.
    const bool inside = e->size_ != 0 ? addr - e->addr_ < e->size_ : e + 1 != end;
    if (!inside)
        return nullptr;
    *offset = addr - e->addr_;
    return e->p_name_;
}

elf_symbols* elf_symbols::open(const char* path, vrk::allocator& a) noexcept {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    struct stat st {};
    void* map = MAP_FAILED;
    if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
        map = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    if (fd >= 0)
        ::close(fd);
    const size_t size = map != MAP_FAILED ? static_cast<size_t>(st.st_size) : 0;
    void* room = a.allocateNoThrow(sizeof(elf_symbols), nullptr);
    if (room == nullptr) {
        if (map != MAP_FAILED)
            ::munmap(map, size);
        return nullptr;
    }
    auto* symbols = new (room)
        elf_symbols(map != MAP_FAILED ? static_cast<const unsigned char*>(map) : nullptr, size, a);
    if (map != MAP_FAILED) {
        symbols->p_map_ = map;
        symbols->map_size_ = size;
    }
    return symbols;
}

void elf_symbols::close(elf_symbols* symbols) noexcept {
    if (symbols == nullptr)
        return;
    vrk::allocator& a = symbols->alloc_;
    const void* map = symbols->p_map_;
    const size_t size = symbols->map_size_;
    symbols->~elf_symbols();
    a.deallocate(symbols);
    if (map != nullptr)
        ::munmap(const_cast<void*>(map), size);
}

} // namespace vrk::host
