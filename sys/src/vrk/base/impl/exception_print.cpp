// Printing an exception: the long and short forms of the whole chain, the
// throw-location section, and the message texts built from them.
#include <cstring>
#include <utility>

#include "vrk/base/impl/bad_alloc_text.hpp"
#include "vrk/base/num_put.hpp"
#include "vrk/exception.hpp"
#include "vrk/ext/itoa.hpp"
#include "vrk/iomanip.hpp"
#include "vrk/locale.hpp"
#include "vrk/ostream.hpp"
#include "vrk/sstream.hpp"

namespace vrk {

// ---------------------------------------------------------------------------
// Prefixes
//
// A prefix is a dozen small insertions. When the stream would render them
// exactly as plain text (good, no pending width, no tie, no unit buffering,
// the classic number facet in decimal without showpos or left adjustment),
// they are put together here and written in one piece; otherwise every
// piece goes through its own insertion.

namespace {

bool plain_stream(ostream& os) {
    const ios_base::fmtflags f = os.flags();
    const ios_base::fmtflags base = f & ios_base::basefield;
    return os.good() && os.width() == 0 && os.tie() == nullptr && base != ios_base::hex &&
           base != ios_base::oct && (f & (ios_base::showpos | ios_base::unitbuf)) == 0 &&
           (f & ios_base::adjustfield) != ios_base::left &&
           static_cast<const locale::facet*>(os.num_put_facet()) ==
               locale::classic().getFacet_(locale::NUM_PUT_ID);
}

// A prefix under construction: numbers take at most 21 characters, file
// names are added only when they fit.
struct prefix_text {
    static constexpr size_t SIZE = 256;
    char buf_[SIZE];
    size_t n_ = 0;

    void add(const char* s, size_t len) {
        if (len == 0)
            return; // `s` may be null: a node read back without a file name
        std::memcpy(buf_ + n_, s, len);
        n_ += len;
    }
    template <size_t N> void add(const char (&s)[N]) { add(s, N - 1); }
    void add(char c) { buf_[n_++] = c; }
    template <class T> void add_number(T v) {
        // The count includes the terminator, which the next piece overwrites.
        n_ += impl::write_integer<T>(v, buf_ + n_, impl::FmtFlags_dec, 0) - 1;
    }
};

} // namespace

void Impl::LongPrefix::print(ostream& os, message_iterator itr, int idx) const {
    if (plain_stream(os)) {
        prefix_text t;
        t.add("exception");
        char digits[24];
        const size_t len = impl::write_integer<long>(idx, digits, impl::FmtFlags_dec, 0) - 1;
        for (size_t i = len; i < 3; ++i)
            t.add(os.fill());
        t.add(digits, len);
        t.add(": no.");
        t.add_number(itr->error_no());
        t.add("  (");
        const char* file = itr->file().get();
        const size_t file_len = file != nullptr ? std::strlen(file) : 0;
        if (file_len > prefix_text::SIZE - 64) {
            os.write(t.buf_, static_cast<streamsize>(t.n_));
            itr->file().print(os);
            t.n_ = 0;
        } else {
            t.add(file, file_len);
        }
        t.add(':');
        t.add_number(itr->line());
        t.add(")\n    ");
        os.write(t.buf_, static_cast<streamsize>(t.n_));
        return;
    }
    os << "exception" << setw(3) << static_cast<long>(idx) << ": no." << itr->error_no() << "  (";
    itr->file().print(os);
    os << ':' << itr->line() << ')' << '\n';
    os.write("    ", 4);
}

void Impl::ShortPrefix::print(ostream& os, message_iterator itr, int) const {
    if (plain_stream(os)) {
        prefix_text t;
        t.add("exception ");
        t.add_number(itr->error_no());
        t.add(": ");
        os.write(t.buf_, static_cast<streamsize>(t.n_));
        return;
    }
    os << "exception " << itr->error_no() << ':' << ' ';
}

// ---------------------------------------------------------------------------
// The printer

namespace {
// A note for a node that lost memory. A code above 3 with one of the two low
// bits set can only come from rebuilt bytes; it is shown with the text of its
// two low bits and its own number, so that the table is never overrun.
void print_bad_alloc_note(ostream& os, int code) {
    os << "; \"" << impl::EXP_BAD_ALLOC_MSG[code & 3] << "\" (code:" << code << ')';
}
} // namespace

template <class Prefix>
void exception::print_(ostream& os, const Prefix& pref, bool suppress_stack,
                       bool suppress_nested_stack) const {
    exception cur_exp(p_fst_); // holds its own reference while printing
    if (cur_exp.p_fst_ == nullptr) {
        const char* text = impl::getBadAllocMsg(err_no_, file_, line_);
        if (text == nullptr)
            os.setstate(ios_base::badbit);
        else
            os << text;
        endl(os);
        impl::ostreamFlush(os);
        return;
    }
    {
        cur_exp.p_fst_->set_done();
        // No state change raises while printing; the format is restored.
        basic_ios<char>::stream_guard guard(os, ios_base::goodbit);
        for (int idx = 1;; ++idx) {
            for (message_iterator itr(&cur_exp.block_()->node_); itr != end(); ++itr) {
                pref.print(os, itr, idx);
                itr->expand(os);
                if (itr->out_of_memory())
                    print_bad_alloc_note(os, itr->bad_alloc());
                endl(os);
            }
            if (!suppress_stack && !(suppress_nested_stack && idx != 1))
                cur_exp.print_stack(os);
            cur_exp = cur_exp.get_next();
            if (cur_exp.p_fst_ == nullptr)
                break;
            cur_exp.p_fst_->set_done();
        }
    }
    impl::ostreamFlush(os);
}

template void exception::print_<Impl::LongPrefix>(ostream&, const Impl::LongPrefix&, bool,
                                                  bool) const;
template void exception::print_<Impl::ShortPrefix>(ostream&, const Impl::ShortPrefix&, bool,
                                                   bool) const;

void exception::print(ostream& os) const {
    if (f_print_ != nullptr)
        f_print_(*this, os);
    else
        print_(os, Impl::LongPrefix(), false, false);
    mark_processed();
}

void exception::print_default(ostream& os, bool suppress_stack, bool suppress_nested_stack) const {
    print_(os, Impl::LongPrefix(), suppress_stack, suppress_nested_stack);
    mark_processed();
}

ostream& operator<<(ostream& os, const exception& e) {
    e.print(os);
    return os;
}

// ---------------------------------------------------------------------------
// The throw location

int exception::stack_trace(void*** p_st) const noexcept {
    const exception_data* d = block_();
    if (d == nullptr || !d->stack() || d->p_buff_ == nullptr)
        return 0;
    if (p_st != nullptr)
        *p_st = static_cast<void**>(d->p_buff_);
    return static_cast<int>(d->buff_sz_);
}

void exception::print_stack(ostream& os) const {
    const exception_data* d = block_();
    if (d == nullptr) {
        os << "NO exception throw location recorded. Allocation of exp.data failed.";
        endl(os);
        return;
    }
    if (d->stack() && d->p_buff_ != nullptr && d->buff_sz_ != 0) {
        os << "exception throw location:";
        endl(os);
        vrk_extern::import::print_stack_trace(&os, static_cast<void**>(d->p_buff_), d->buff_sz_);
        endl(os);
        return;
    }
    if (!d->stack() && d->p_buff_ != nullptr) {
        // Text printed by the side that serialized the exception.
        os.write(static_cast<const char*>(d->p_buff_), d->buff_sz_);
        return;
    }
    switch (const int code = d->node_.bad_alloc_) {
    case exception_node::STACK_SUPPRESS:
        os << "NO exception throw location recorded. Stack generation suppressed.";
        break;
    case exception_node::STACK_ERROR:
        os << "NO exception throw location recorded. Stack generation system error.";
        break;
    case exception_node::STACK_FAILED:
        os << "NO exception throw location recorded. Allocation of stack data failed.";
        break;
    default:
        os << "NO exception throw location recorded. Bad alloc.code: " << code;
        break;
    }
    endl(os);
}

// ---------------------------------------------------------------------------
// Message texts

const char* exception::what() const noexcept {
    const exception_data* d = block_();
    if (d == nullptr)
        return impl::getBadAllocMsg(err_no_, file_, line_);
    if (d->node_.msg_owner_)
        return d->node_.msg_param_.message();
    return d->node_.align_;
}

string_retval exception::what(allocator& alloc, bool suppress_stack) const noexcept {
    osstream os(impl::out, alloc);
    print_(os, Impl::ShortPrefix(), suppress_stack, false);
    // The text is moved out of the stream, not copied: taking it needs no
    // memory, so a text cut short by a failed growth still comes back
    // instead of a failing copy ending the process.
    string text(alloc);
    os.swap(text);
    return string_retval(std::move(text));
}

} // namespace vrk
