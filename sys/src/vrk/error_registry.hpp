// vrk/error_registry.hpp: error numbers, their texts and categories.
//
// An error code names an error by number, with a default message text (a
// pattern that may name `$NAME$` parameters) and a category. The registry
// entries are functions returning a static code, reached through small
// constant objects so that `vrk::ERR_VRK_RUNTIME` can be passed wherever a
// `const vrk::error_code&` is wanted.
#pragma once

namespace vrk {

class error_category {
public:
    constexpr explicit error_category(const char* name) noexcept : name_(name) {}
    const char* name() const noexcept { return name_; }

private:
    const char* name_;
};

struct error_code {
    int err_no_;
    const char* err_text_;
    const error_category* cat_;
};

// The category of the base library's own errors.
const error_category& vrk_category() noexcept;

// A registry entry: converts to the error code its function returns.
struct error_code_entry {
    const error_code& (*get_)() noexcept;
    operator const error_code&() const noexcept { return get_(); } // NOLINT: implicit by design
    int number() const noexcept { return get_().err_no_; }
};

#define VRK_DECLARE_ERROR(NAME)                                                                    \
    const ::vrk::error_code& registry_##NAME() noexcept;                                           \
    inline constexpr ::vrk::error_code_entry NAME { &registry_##NAME }

// The base library's errors. Numbers are stable: they travel in serialized
// exceptions.
VRK_DECLARE_ERROR(ERR_VRK_RUNTIME);        // 1001 "Runtime error"
VRK_DECLARE_ERROR(ERR_VRK_NOT_REGISTERED); // 1002 exception not on the thread's list
VRK_DECLARE_ERROR(ERR_VRK_LOGIC);          // 1003 "Logic error"
VRK_DECLARE_ERROR(ERR_VRK_OVERFLOW);       // 1004 "Overflow error"
VRK_DECLARE_ERROR(ERR_VRK_UNDERFLOW);      // 1005 "Underflow error"
VRK_DECLARE_ERROR(ERR_VRK_RVALUE);         // 1006 change of a read-only value
VRK_DECLARE_ERROR(ERR_VRK_IOS);            // 1007 stream failure
VRK_DECLARE_ERROR(ERR_VRK_OUT_OF_RANGE);   // 1008 position or index out of range

} // namespace vrk
