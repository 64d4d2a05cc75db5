// A program and two plugins on the shared libraries: an exception class one
// plugin registers and throws, the other serializes, comes back from bytes
// in the program as that class. With a copy of the library in each object,
// the type would be unknown here and copies would count under different lock
// tables.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/sstream.hpp"

namespace {

int failures = 0;
void check(bool ok, const char* what) {
    if (!ok) {
        std::printf("FAILED: %s\n", what);
        ++failures;
    }
}

template <class F> F symbol(void* lib, const char* name) {
    void* p = lib != nullptr ? dlsym(lib, name) : nullptr;
    if (p == nullptr) {
        std::printf("missing %s: %s\n", name, dlerror());
        std::exit(2);
    }
    return reinterpret_cast<F>(p);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    void* thrower = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    void* writer = dlopen(argv[2], RTLD_NOW | RTLD_LOCAL);
    auto throw_it = symbol<void (*)()>(thrower, "vrk_plugin_throw");
    auto is_its_class = symbol<bool (*)(const vrk::exception&)>(thrower, "vrk_plugin_is_its_class");
    auto serialize =
        symbol<void (*)(const vrk::exception&, vrk::ostream&)>(writer, "vrk_plugin_serialize");
    auto lock_table = symbol<const void* (*)()>(writer, "vrk_plugin_lock_table");
    check(lock_table() == vrk::impl::getHashLocks(), "one lock table in the process");

    vrk::heap_allocator heap;
    vrk::string sent(heap);
    try {
        throw_it();
    } catch (const vrk::exception& e) {
        check(is_its_class(e), "caught as the plugin's class");
        vrk::osstream bytes(heap);
        serialize(e, bytes);
        sent = bytes.str();
        vrk::isstream in(sent.data(), sent.size(), heap);
        auto back = vrk::exception::deserialize(in, heap);
        check(is_its_class(*back), "deserialized as the plugin's class");
        vrk::osstream again(heap);
        serialize(*back, again);
        const vrk::string resent = again.str();
        check(resent.size() == sent.size() &&
                  std::memcmp(resent.data(), sent.data(), sent.size()) == 0,
              "the same bytes after a round trip");

        e.mark_processed();
        back->mark_processed();
    }
    // Unloaded, the plugin takes its class out of the registry: its bytes are
    // refused as unknown instead of being read by a creator in unmapped code.
    dlclose(thrower);
    vrk::isstream in(sent.data(), sent.size(), heap);
    bool refused = false;
    try {
        vrk::exception::deserialize(in, heap);
    } catch (const vrk::runtime_error& e) {
        e.mark_processed();
        refused = true;
    }
    check(refused, "a class whose plugin is gone is refused");
    std::printf("%s\n",
                failures == 0 ? "shared build: one library per process" : "shared build FAILED");
    return failures == 0 ? 0 : 1;
}
