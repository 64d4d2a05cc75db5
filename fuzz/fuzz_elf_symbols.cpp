// Fuzz target: the symbol index that names trace frames, over arbitrary
// bytes taken as an ELF image. Whatever the headers, section table and symbol
// tables claim, it reads nothing outside the image (the sanitizers watch),
// names only text that lies wholly inside it, and releases its index. The
// input's last eight bytes also give an address to look up, so the fuzzer
// can steer lookups onto symbols.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "support/test_allocator.hpp"
#include "vrk/host/elf_symbols.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vrk_test::test_allocator alloc;
    {
        const vrk::host::elf_symbols symbols(data, size, alloc);
        uint64_t tail = 0;
        if (size >= sizeof tail)
            std::memcpy(&tail, data + size - sizeof tail, sizeof tail);
        const auto* begin = reinterpret_cast<const char*>(data);
        const auto* end = begin + size;
        for (const uint64_t addr : {uint64_t{0}, tail, tail + 1, ~uint64_t{0}}) {
            uint64_t offset = ~uint64_t{0};
            const char* name = symbols.find(addr, &offset);
            if (name != nullptr &&
                (name < begin || name >= end ||
                 std::memchr(name, 0, static_cast<size_t>(end - name)) == nullptr || offset > addr))
                std::abort();
        }
    }
    if (alloc.balance() != 0 || alloc.bad_releases() != 0)
        std::abort();
    return 0;
}
