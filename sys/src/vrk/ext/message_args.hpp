// vrk/ext/message_args.hpp: typed named arguments for exception messages,
// streamed into an exception with `exp << vrk::msgarg_int("COUNT", n)`.
//
// Every value is rendered to text at once, in a stack buffer, and handed to
// exception::define_argument, which copies it. Rendering never allocates,
// throws or locks; only storing the parameter allocates, without throwing.
//
// Texts, per value type (`hex_out` false / true):
//   int, unsigned, long, unsigned long: decimal / "0x" and lower-case hex
//     digits of the bit pattern at the type's width (-1 as int: 0xffffffff)
//   char, unsigned char: the character itself, a zero char giving "" /
//     "0x" and lower-case hex digits of the 8-bit value (A: 0x41)
//   bool: "true" or "false" / "1" or "0"
//   float, double: 12 significant digits as "%.12g" ("NaN" for a NaN); the
//     flag is ignored
//   const void*: always "0x" and 16 lower-case hex digits, zero-padded
//   text: the text / upper-case hex bytes separated by blanks ("41 42"), at
//     most the first 341 bytes; a null text defines nothing in either form
//   exception: its long printed form, at most 2047 characters; never hex
// A `message_replace` (`msgrpl_*`) overrides an earlier argument of the same
// name; a `message_argument` (`msgarg_*`) loses to an earlier one.
#pragma once

#include "vrk/base/impl/exception_class.hpp"

namespace vrk {

template <class T> class message_arg_base {
public:
    message_arg_base(const message_arg_base&) = default;
    message_arg_base& operator=(const message_arg_base&) = delete;

    const char* const name_;
    const T value_;
    const bool hex_;
    const bool force_;

protected:
    message_arg_base(const char* arg_name, const T& arg_val, bool replace, bool hex_out)
        : name_(arg_name), value_(arg_val), hex_(hex_out), force_(replace) {}
};

// An ordinary argument: the first definition of a name wins.
template <class T> class message_argument : public message_arg_base<T> {
public:
    message_argument(const char* arg_name, const T& arg_val, bool hex_out = false)
        : message_arg_base<T>(arg_name, arg_val, false, hex_out) {}
};

// A replacement: overrides what was defined under its name before.
template <class T> class message_replace : public message_arg_base<T> {
public:
    message_replace(const char* arg_name, const T& arg_val, bool hex_out = false)
        : message_arg_base<T>(arg_name, arg_val, true, hex_out) {}
};

// Argument name used by the text arguments built from a text alone.
inline constexpr const char* MSGARG_TEXT_NAME = "TEXT";

// Text arguments. The forms with a single text use it as the value under
// the name "TEXT" (MSGARG_TEXT_NAME), so `$TEXT$` shows it.
class msgarg_text : public message_argument<const char*> {
public:
    msgarg_text(const char* arg_name, const char* arg_val, bool hex_out = false)
        : message_argument<const char*>(arg_name, arg_val, hex_out) {}
    msgarg_text(const char* arg_name, char* arg_val, bool hex_out = false)
        : message_argument<const char*>(arg_name, arg_val, hex_out) {}
    msgarg_text(const char* arg_val, bool hex_out)
        : message_argument<const char*>(MSGARG_TEXT_NAME, arg_val, hex_out) {}
    msgarg_text(char* arg_val, bool hex_out)
        : message_argument<const char*>(MSGARG_TEXT_NAME, arg_val, hex_out) {}
};

class msgrpl_text : public message_replace<const char*> {
public:
    msgrpl_text(const char* arg_name, const char* arg_val, bool hex_out = false)
        : message_replace<const char*>(arg_name, arg_val, hex_out) {}
    msgrpl_text(const char* arg_name, char* arg_val, bool hex_out = false)
        : message_replace<const char*>(arg_name, arg_val, hex_out) {}
    msgrpl_text(const char* arg_val, bool hex_out)
        : message_replace<const char*>(MSGARG_TEXT_NAME, arg_val, hex_out) {}
    msgrpl_text(char* arg_val, bool hex_out)
        : message_replace<const char*>(MSGARG_TEXT_NAME, arg_val, hex_out) {}
};

// Pointer arguments: always 18 characters, "0x" and 16 hex digits.
class msgarg_ptr : public message_argument<const void*> {
public:
    msgarg_ptr(const char* arg_name, const void* arg_val)
        : message_argument<const void*>(arg_name, arg_val, false) {}
};

class msgrpl_ptr : public message_replace<const void*> {
public:
    msgrpl_ptr(const char* arg_name, const void* arg_val)
        : message_replace<const void*>(arg_name, arg_val, false) {}
};

using msgarg_bool = message_argument<bool>;
using msgrpl_bool = message_replace<bool>;
using msgarg_char = message_argument<char>;
using msgrpl_char = message_replace<char>;
using msgarg_uchar = message_argument<unsigned char>;
using msgrpl_uchar = message_replace<unsigned char>;
using msgarg_int = message_argument<int>;
using msgrpl_int = message_replace<int>;
using msgarg_uint = message_argument<unsigned int>;
using msgrpl_uint = message_replace<unsigned int>;
using msgarg_int64 = message_argument<long>;
using msgrpl_int64 = message_replace<long>;
using msgarg_uint64 = message_argument<unsigned long>;
using msgrpl_uint64 = message_replace<unsigned long>;
using msgarg_float = message_argument<float>;
using msgrpl_float = message_replace<float>;
using msgarg_double = message_argument<double>;
using msgrpl_double = message_replace<double>;
using msgarg_exc = message_argument<exception>;
using msgrpl_exc = message_replace<exception>;

// Each renders the value and defines it on `exp`'s latest message; returns
// `exp`.
exception& operator<<(exception& exp, const msgarg_bool& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_bool& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_char& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_char& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_uchar& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_uchar& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_int& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_int& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_uint& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_uint& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_int64& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_int64& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_uint64& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_uint64& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_float& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_float& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_double& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_double& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_text& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_text& marg) noexcept;
exception& operator<<(exception& exp, const msgarg_ptr& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_ptr& marg) noexcept;
// The nested exception's printed form (its print hook or the long form),
// cut after 2047 characters; marks it processed.
exception& operator<<(exception& exp, const msgarg_exc& marg) noexcept;
exception& operator<<(exception& exp, const msgrpl_exc& marg) noexcept;

} // namespace vrk
