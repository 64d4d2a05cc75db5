// A minimal product host: every hook the facility needs.
#include <cstdio>
#include <cstdlib>
#include <new>

#include "vrk/exception.hpp"

namespace {
struct callback final : vrk_extern::unhandled {
    void unhandled_exception(const vrk::exception&) override {}
    bool is_test_handler() override { return false; }
    void add_recent_exception(const vrk::exception&) override {}
    void register_exception(const vrk::exception& e) override { head = &e; }
    void unregister_exception(const vrk::exception&) override { head = nullptr; }
    const vrk::exception* get_registered_exception() override { return head; }
    void abort(const char*, int, const char*) override { std::abort(); }
    void halt(const char*, int, const char*) override { std::abort(); }
    const vrk::exception* head = nullptr;
};
struct heap final : vrk::allocator {
    void* allocateNoThrow(size_t n, const void*) noexcept override { return std::malloc(n); }
    void* allocate(size_t n, const void*) override { return allocate(n); }
    void* allocate(size_t n) override {
        if (void* p = std::malloc(n))
            return p;
        throw std::bad_alloc();
    }
    void deallocate(void* p) noexcept override { std::free(p); }
};
} // namespace

const char* vrk_extern::import::stdFileName(const char* f) noexcept { return f; }
unsigned vrk_extern::import::save_stack_trace(void**, unsigned, const void*) noexcept { return 0; }
void vrk_extern::import::print_stack_trace(vrk::ostream*, void**, unsigned) {}
void vrk_extern::import::caught_exception(const vrk::exception&) {}
void vrk_extern::import::forgotten_exception(const vrk::exception&) noexcept {}
vrk_extern::unhandled* vrk_extern::import::get_unhandled_callback() noexcept {
    thread_local callback cb;
    return &cb;
}
void vrk_extern::import::abort(const char*, int, const char* m) noexcept {
    std::fprintf(stderr, "%s\n", m);
    std::abort();
}
void vrk_extern::import::abort(const char*, int, const char* m, long) noexcept {
    std::fprintf(stderr, "%s\n", m);
    std::abort();
}
vrk::allocator& vrk::exception::default_allocator() {
    static heap h;
    return h;
}
