// Exceptions as message arguments: the nested exception is printed into a
// stack buffer and its text becomes an ordinary text argument. Kept apart
// from the other arguments so that only users of these two operators link
// the printer.
#include "vrk/ext/buffer_stream.hpp"
#include "vrk/ext/message_args.hpp"

namespace vrk {

namespace {

// Any exception thrown by the print (a print hook's) ends the process: the
// callers are declared not to throw.
template <class Text>
void defineExcParam(exception& exp, const char* name, const exception& nested) noexcept {
    buffer_stream<2048> stream;
    nested.print(stream.getStream());
    // c_str() terminates at the write position: at most 2047 characters.
    exp << Text(name, stream.c_str(), false);
}

} // namespace

exception& operator<<(exception& exp, const msgrpl_exc& marg) noexcept {
    defineExcParam<msgrpl_text>(exp, marg.name_, marg.value_);
    return exp;
}

exception& operator<<(exception& exp, const msgarg_exc& marg) noexcept {
    defineExcParam<msgarg_text>(exp, marg.name_, marg.value_);
    return exp;
}

} // namespace vrk
