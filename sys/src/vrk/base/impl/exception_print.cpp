// Printing an exception: the long and short forms of the whole chain, the
// throw-location section, and the message texts built from them.
#include <cstdint>
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
// Prefixes and lines
//
// Every printed line is written by one function, into one of two sinks: a
// plain stream's line (good, no pending width, no tie, no unit buffering,
// the classic number facet in decimal without showpos or left adjustment, a
// ctype facet for the line end) is gathered on the stack and handed to the
// stream in one write; any other stream gets each piece through its own
// insertion, with the stream's own formatting and error handling. On a plain
// stream both give the same characters.

namespace {

bool plain_stream(ostream& os) {
    const ios_base::fmtflags f = os.flags();
    const ios_base::fmtflags base = f & ios_base::basefield;
    return os.good() && os.width() == 0 && os.tie() == nullptr && base != ios_base::hex &&
           base != ios_base::oct && (f & (ios_base::showpos | ios_base::unitbuf)) == 0 &&
           (f & ios_base::adjustfield) != ios_base::left && os.ctype_facet() != nullptr &&
           static_cast<const locale::facet*>(os.num_put_facet()) ==
               locale::classic().getFacet_(locale::NUM_PUT_ID);
}

// A line gathered for a plain stream. A piece that does not fit sends what
// is gathered on first; a piece longer than the whole array is written as it
// is.
class gathered_line {
public:
    explicit gathered_line(ostream& os) noexcept : os_(os) {}
    gathered_line(const gathered_line&) = delete;
    gathered_line& operator=(const gathered_line&) = delete;

    void raw(const char* s, size_t len) {
        if (len == 0)
            return; // `s` may be null: a node read back without a file name
        if (len > SIZE - n_) {
            send();
            if (len > SIZE) {
                os_.write(s, static_cast<streamsize>(len));
                return;
            }
        }
        copy_(buf_ + n_, s, len);
        n_ += len;
    }
    void text(const char* s) { raw(s, std::strlen(s)); }
    template <size_t N> void text(const char (&s)[N]) { raw(s, N - 1); }
    void ch(char c) { raw(&c, 1); }
    template <class T> void number(T v) {
        // The count includes the terminator, which the next piece overwrites.
        if (SIZE - n_ > 24) {
            n_ += impl::write_integer<T>(v, buf_ + n_, impl::FmtFlags_dec, 0) - 1;
            return;
        }
        char digits[24];
        raw(digits, impl::write_integer<T>(v, digits, impl::FmtFlags_dec, 0) - 1);
    }
    // At least three places, filled on the left with the stream's fill.
    void index(long idx) {
        char digits[24];
        const size_t len = impl::write_integer<long>(idx, digits, impl::FmtFlags_dec, 0) - 1;
        for (size_t i = len; i < 3; ++i)
            ch(os_.fill());
        raw(digits, len);
    }
    void file(faultprot_cstring f) {
        const char* s = f.get();
        raw(s, s != nullptr ? std::strlen(s) : 0);
    }
    // Expanded in place when it fits, else to the stream after what was
    // gathered.
    void message(const exception_node& node) {
        const size_t room = SIZE - n_;
        const size_t len = node.expand(buf_ + n_, room);
        if (len < room) {
            n_ += len;
            return;
        }
        send();
        node.expand(os_);
    }
    // The line end and the flush of `endl`.
    void end_line() {
        ch('\n');
        send();
        impl::ostreamFlush(os_);
    }
    // Hands what is gathered to the stream.
    void send() {
        if (n_ != 0)
            os_.write(buf_, static_cast<streamsize>(n_));
        n_ = 0;
    }

private:
    // Most pieces are a few characters: two overlapping word copies instead
    // of a library call.
    static void copy_(char* dst, const char* src, size_t len) noexcept {
        if (len >= 8 && len <= 16) {
            uint64_t a, b;
            std::memcpy(&a, src, 8);
            std::memcpy(&b, src + len - 8, 8);
            std::memcpy(dst, &a, 8);
            std::memcpy(dst + len - 8, &b, 8);
        } else if (len >= 4 && len < 8) {
            uint32_t a, b;
            std::memcpy(&a, src, 4);
            std::memcpy(&b, src + len - 4, 4);
            std::memcpy(dst, &a, 4);
            std::memcpy(dst + len - 4, &b, 4);
        } else if (len < 4) {
            for (size_t i = 0; i < len; ++i)
                dst[i] = src[i];
        } else {
            std::memcpy(dst, src, len);
        }
    }

    static constexpr size_t SIZE = 512;
    ostream& os_;
    size_t n_ = 0;
    char buf_[SIZE];
};

// The same pieces, each inserted into the stream as it comes.
class streamed_line {
public:
    explicit streamed_line(ostream& os) noexcept : os_(os) {}
    void raw(const char* s, size_t len) { os_.write(s, static_cast<streamsize>(len)); }
    void text(const char* s) { os_ << s; }
    void ch(char c) { os_ << c; }
    template <class T> void number(T v) { os_ << v; }
    void index(long idx) { os_ << setw(3) << idx; }
    void file(faultprot_cstring f) { f.print(os_); }
    void message(const exception_node& node) { node.expand(os_); }
    void end_line() { endl(os_); }
    void send() {}

private:
    ostream& os_;
};

// Calls `write` with the sink that suits the stream's state now.
template <class Write> void write_line(ostream& os, const Write& write) {
    if (plain_stream(os)) {
        gathered_line line(os);
        write(line);
        line.send();
    } else {
        streamed_line line(os);
        write(line);
    }
}

template <class Line>
void write_prefix(Line& out, const Impl::LongPrefix&, message_iterator itr, int idx) {
    out.text("exception");
    out.index(idx);
    out.text(": no.");
    out.number(itr->error_no());
    out.text("  (");
    out.file(itr->file());
    out.ch(':');
    out.number(itr->line());
    out.ch(')');
    out.ch('\n');
    out.raw("    ", 4);
}

template <class Line>
void write_prefix(Line& out, const Impl::ShortPrefix&, message_iterator itr, int) {
    out.text("exception ");
    out.number(itr->error_no());
    out.ch(':');
    out.ch(' ');
}

// One message: its prefix, its expanded text, for a node that lost memory a
// note with the failure's text (a code above 3 with one of the two low bits
// set can only come from rebuilt bytes; it is shown with the text of its two
// low bits and its own number, so that the table is never overrun), and the
// line end.
template <class Line, class Prefix>
void write_message(Line& out, const Prefix& pref, message_iterator itr, int idx) {
    write_prefix(out, pref, itr, idx);
    out.message(*itr);
    if (itr->out_of_memory()) {
        const int code = itr->bad_alloc();
        out.text("; \"");
        out.text(impl::EXP_BAD_ALLOC_MSG[code & 3]);
        out.text("\" (code:");
        out.number(code);
        out.ch(')');
    }
    out.end_line();
}

} // namespace

void Impl::LongPrefix::print(ostream& os, message_iterator itr, int idx) const {
    write_line(os, [&](auto& line) { write_prefix(line, *this, itr, idx); });
}

void Impl::ShortPrefix::print(ostream& os, message_iterator itr, int idx) const {
    write_line(os, [&](auto& line) { write_prefix(line, *this, itr, idx); });
}

// ---------------------------------------------------------------------------
// The printer

namespace {
// The one-line throw-location section of a block that has no frames and no
// imported text, when that line is a fixed text; null otherwise.
const char* stack_note(const exception_data* d) noexcept {
    if ((d->stack() && d->p_buff_ != nullptr && d->buff_sz_ != 0) ||
        (!d->stack() && d->p_buff_ != nullptr))
        return nullptr;
    switch (d->node_.bad_alloc_) {
    case exception_node::STACK_SUPPRESS:
        return "NO exception throw location recorded. Stack generation suppressed.";
    case exception_node::STACK_ERROR:
        return "NO exception throw location recorded. Stack generation system error.";
    case exception_node::STACK_FAILED:
        return "NO exception throw location recorded. Allocation of stack data failed.";
    default:
        return nullptr;
    }
}

void print_stack_of(ostream& os, const exception_data* d) {
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
    write_line(os, [d](auto& line) {
        if (const char* note = stack_note(d)) {
            line.text(note);
        } else {
            line.text("NO exception throw location recorded. Bad alloc.code: ");
            line.number(d->node_.bad_alloc_);
        }
        line.end_line();
    });
}
} // namespace

template <class Prefix>
void exception::print_(ostream& os, const Prefix& pref, bool suppress_stack,
                       bool suppress_nested_stack) const {
    if (p_fst_ == nullptr) {
        const char* text = impl::getBadAllocMsg(err_no_, file_, line_);
        if (text == nullptr)
            os.setstate(ios_base::badbit);
        else
            os << text;
        endl(os);
        impl::ostreamFlush(os);
        return;
    }
    // The chain is walked by its links without counted handles: this handle
    // keeps the first block alive, and every further block is kept alive by
    // the link from its predecessor, whoever lets go of their copies
    // meanwhile. That saves two locked updates of each block's count.
    {
        // No state change raises while printing; the format is restored.
        basic_ios<char>::stream_guard guard(os, ios_base::goodbit);
        volatile exception_data* block = p_fst_;
        for (int idx = 1;; ++idx) {
            block->set_done();
            const exception_data* d = const_cast<const exception_data*>(block);
            for (message_iterator itr(&d->node_); itr != end(); ++itr)
                write_line(os, [&](auto& line) { write_message(line, pref, itr, idx); });
            if (!suppress_stack && !(suppress_nested_stack && idx != 1))
                print_stack_of(os, d);
            block = block->next();
            if (block == nullptr)
                break;
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

void exception::print_stack(ostream& os) const { print_stack_of(os, block_()); }

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
