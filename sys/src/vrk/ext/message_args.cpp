// Rendering of typed message arguments. Every text is built in a buffer on
// the stack and copied by define_argument; nothing here allocates.
#include "vrk/ext/message_args.hpp"

#include <cstdint>

#include "vrk/ext/buffer_stream.hpp"
#include "vrk/ext/dtoa.hpp"
#include "vrk/ext/itoa.hpp"

namespace vrk {

namespace {

constexpr size_t INT_BUF = 66;
constexpr size_t DUMP_BUF = 1024;
// Bytes a dump shows: three characters each, the last blank becoming the
// terminator, within DUMP_BUF.
constexpr size_t DUMP_MAX_BYTES = (DUMP_BUF - 1) / 3;

template <class T> void defineIntParam(exception& exp, const message_arg_base<T>& marg) noexcept {
    char buf[INT_BUF];
    const char* text;
    if (marg.hex_) {
        buf[0] = '0';
        buf[1] = 'x';
        impl::iToA<T>(marg.value_, buf + 2, 64, 16, 0);
        text = buf;
    } else {
        text = itoa(marg.value_, buf);
    }
    buf[INT_BUF - 1] = '\0';
    exp.define_argument(marg.name_, text, marg.force_);
}

template <class T> void defineCharParam(exception& exp, const message_arg_base<T>& marg) noexcept {
    if (marg.hex_) {
        char buf[INT_BUF];
        buf[0] = '0';
        buf[1] = 'x';
        impl::iToA<T>(marg.value_, buf + 2, 64, 16, 0);
        buf[INT_BUF - 1] = '\0';
        exp.define_argument(marg.name_, buf, marg.force_);
        return;
    }
    const char buf[2] = {static_cast<char>(marg.value_), '\0'};
    exp.define_argument(marg.name_, buf, marg.force_);
}

void defineBoolParam(exception& exp, const message_arg_base<bool>& marg) noexcept {
    const char* text = marg.hex_ ? (marg.value_ ? "1" : "0") : (marg.value_ ? "true" : "false");
    exp.define_argument(marg.name_, text, marg.force_);
}

template <class T> void defineDblParam(exception& exp, const message_arg_base<T>& marg) noexcept {
    char buf[INT_BUF + 1];
    const char* text = dtoa(static_cast<double>(marg.value_), 12, buf, INT_BUF);
    if (text != nullptr)
        buf[INT_BUF - 1] = '\0';
    else
        text = "NaN";
    exp.define_argument(marg.name_, text, marg.force_);
}

void defineStringParam(exception& exp, const message_arg_base<const char*>& marg) noexcept {
    const char* value = marg.value_;
    if (value == nullptr)
        return;
    if (!marg.hex_) {
        exp.define_argument(marg.name_, value, marg.force_);
        return;
    }
    const char* digits = impl::hexCharTable(true);
    char dump[DUMP_BUF];
    char* out = dump;
    for (size_t i = 0; i < DUMP_MAX_BYTES && value[i] != '\0'; ++i) {
        const auto b = static_cast<unsigned char>(value[i]);
        out[0] = digits[b / 16];
        out[1] = digits[b % 16];
        out[2] = ' ';
        out += 3;
    }
    // The blank after the last byte becomes the terminator.
    if (out != dump)
        --out;
    *out = '\0';
    exp.define_argument(marg.name_, dump, marg.force_);
}

void definePtrParam(exception& exp, const message_arg_base<const void*>& marg) noexcept {
    char buf[INT_BUF];
    buf[0] = '0';
    buf[1] = 'x';
    impl::iToA<unsigned long>(reinterpret_cast<uintptr_t>(marg.value_), buf + 2, 64, 16, 16);
    buf[18] = '\0';
    exp.define_argument(marg.name_, buf, marg.force_);
}

} // namespace

#define VRK_MSGARG_OPERATORS_(ARG, RPL, ROUTINE)                                                   \
    exception& operator<<(exception& exp, const ARG& marg) noexcept {                              \
        ROUTINE(exp, marg);                                                                        \
        return exp;                                                                                \
    }                                                                                              \
    exception& operator<<(exception& exp, const RPL& marg) noexcept {                              \
        ROUTINE(exp, marg);                                                                        \
        return exp;                                                                                \
    }

VRK_MSGARG_OPERATORS_(msgarg_bool, msgrpl_bool, defineBoolParam)
VRK_MSGARG_OPERATORS_(msgarg_char, msgrpl_char, defineCharParam<char>)
VRK_MSGARG_OPERATORS_(msgarg_uchar, msgrpl_uchar, defineCharParam<unsigned char>)
VRK_MSGARG_OPERATORS_(msgarg_int, msgrpl_int, defineIntParam<int>)
VRK_MSGARG_OPERATORS_(msgarg_uint, msgrpl_uint, defineIntParam<unsigned int>)
VRK_MSGARG_OPERATORS_(msgarg_int64, msgrpl_int64, defineIntParam<long>)
VRK_MSGARG_OPERATORS_(msgarg_uint64, msgrpl_uint64, defineIntParam<unsigned long>)
VRK_MSGARG_OPERATORS_(msgarg_float, msgrpl_float, defineDblParam<float>)
VRK_MSGARG_OPERATORS_(msgarg_double, msgrpl_double, defineDblParam<double>)
VRK_MSGARG_OPERATORS_(msgarg_text, msgrpl_text, defineStringParam)
VRK_MSGARG_OPERATORS_(msgarg_ptr, msgrpl_ptr, definePtrParam)

#undef VRK_MSGARG_OPERATORS_

} // namespace vrk
