// A plugin that brings its own exception class: registers it for
// deserialization when loaded and throws it on request.
#include <new>

#include "vrk/exception.hpp"
#include "vrk/exception_types.hpp"

namespace {

const vrk::error_code ERR_PLUGIN{7300, "Plugin $NAME$ failed", nullptr};

class plugin_error : public vrk::exception {
public:
    static constexpr unsigned short TYPE = 0x0173;
    plugin_error(const char* fname, int line, const vrk::error_code& code, const void* caller)
        : exception(fname, line, code, caller) {}
    void do_throw() override { throw_as_<plugin_error>(); }
    static vrk::auto_ptr<vrk::exception, vrk::default_deleter> create(vrk::istream&,
                                                                      vrk::allocator& alloc) {
        vrk::auto_ptr<vrk::exception, vrk::default_deleter> result;
        ::new (vrk::auto_ptr_mem_ref(result), alloc, 0) plugin_error();
        return result;
    }

protected:
    void store_type(vrk::ostream& out) const override { write_int(out, TYPE_MARK | TYPE); }

private:
    plugin_error() noexcept : exception(nullptr) {}
};

// Registered while the plugin is loaded: a creator left in the registry after
// dlclose would be called in unmapped code by the next deserialize.
const struct registration {
    registration() noexcept
        : ok(vrk::register_exception_type(plugin_error::TYPE, &plugin_error::create)) {}
    ~registration() { vrk::unregister_exception_type(plugin_error::TYPE, &plugin_error::create); }
    bool ok;
} registered;

} // namespace

extern "C" [[noreturn]] void vrk_plugin_throw() {
    VRK_THROW_AT("tests/shared/plugin_thrower.cpp", 37, plugin_error, ERR_PLUGIN)
        << vrk::msgarg_text("NAME", "thrower");
}

extern "C" bool vrk_plugin_is_its_class(const vrk::exception& e) {
    return registered.ok && dynamic_cast<const plugin_error*>(&e) != nullptr;
}
