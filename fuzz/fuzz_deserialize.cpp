// Fuzz target: vrk::exception::deserialize over arbitrary bytes. Every input
// must either decode into an exception that prints, serializes again and
// releases cleanly, or raise a vrk::exception; nothing may leak or crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "vrk/exception.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/sstream.hpp"

namespace {

// Counts what the decoded object and the texts take, so a leak in either
// is caught on the input that caused it, not only at exit.
class counting_allocator final : public vrk::allocator {
public:
    void* allocateNoThrow(size_t n, const void*) noexcept override { return take_(n); }
    void* allocate(size_t n, const void*) override { return allocate(n); }
    void* allocate(size_t n) override {
        if (void* p = take_(n))
            return p;
        throw std::bad_alloc();
    }
    void deallocate(void* p) noexcept override {
        if (p != nullptr) {
            --live_;
            std::free(p);
        }
    }
    long live() const noexcept { return live_; }

private:
    void* take_(size_t n) noexcept {
        void* p = std::malloc(n);
        if (p != nullptr)
            ++live_;
        return p;
    }
    long live_ = 0;
};

// A derived class's creator under type number 1: its header carries one
// extra word. Lets the fuzzer reach the registry and the creator path.
class typed_exception : public vrk::exception {
public:
    static vrk::auto_ptr<vrk::exception, vrk::default_deleter> create(vrk::istream& inp,
                                                                      vrk::allocator& alloc) {
        const uint32_t extra = read_int(inp);
        if (extra == 0)
            return {}; // a creator may decline
        void* raw = alloc.allocate(sizeof(typed_exception));
        return {::new (raw) typed_exception(), &alloc};
    }

private:
    typed_exception() noexcept : exception(nullptr) {}
};

const bool registered = vrk::register_exception_type(1, &typed_exception::create);

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static counting_allocator alloc;
    (void)registered;
    {
        vrk::isstream in(reinterpret_cast<const char*>(data), size, alloc);
        try {
            auto e = vrk::exception::deserialize(in, alloc);
            if (e) {
                vrk::osstream text(alloc);
                e->print_default(text, false, false);
                vrk::string short_form = e->what(alloc, false);
                vrk::osstream again(alloc);
                e->serialize(again, false);
            }
        } catch (const vrk::exception& bad) {
            bad.mark_processed();
        }
    }
    if (alloc.live() != 0)
        std::abort(); // the object or a text leaked
    return 0;
}
