// Fuzz target: vrk streams against the standard streams. The input is a
// header, an input text and a sequence of operations: settings (flags, width,
// fill, precision), insertions of every integer type, characters, bools,
// pointers, C strings and doubles, unformatted output, extractions and
// unformatted input. Both sides run them over identical string-backed buffers
// that can refuse or throw; after each step text, values, state bits and
// counts must agree, except where DEVIATIONS says the library differs.
//
// Input: byte 0 the buffers' shape (bits 1-4 the put area size, bits 5-7 the
// input chunk size less one), byte 1 bit 0 whether reading past the input
// throws, byte 2 the input's length, the input, then operations: a code byte
// (its value modulo the number of operations) and the operands.
//
// Byte 1 NUMBER_TEXTS instead checks the integer texts the streams and the
// messages are built from against std::to_chars (see number_text), byte 1
// STRING_BUFFERS a vrk::stringbuf against a std::stringbuf (string_buffers).
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "vrk/ext/dtoa.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/ext/itoa.hpp"
#include "vrk/istream.hpp"
#include "vrk/sstream.hpp"

namespace {

// Where the library differs from the standard streams on purpose. Each is
// normalised in one place, marked with its name:
// - DTOA: doubles are compared as vrk::dtoa's text against the standard
//   stream's default notation at the same precision, without flags or width,
//   NaN skipped. The streams have no floating-point insertion; doubles become
//   text only as message arguments, through dtoa, which has no text for NaN.
// - POINTER_FLAGS: the standard stream's flags are put back after a pointer
//   insertion. It stays in hex|showbase when the buffer throws; the library
//   formats from a copy.
// - FLUSH_SENTRY: flush (endl's too) of a stream that is not good runs on the
//   library's stream only. The library's flush has no sentry: it syncs a
//   failed stream and leaves its state.
// - WIDTH_AFTER_THROW: the standard stream's width is reset when the buffer
//   threw in a text insertion. The library resets the width after every text
//   insertion, whatever its outcome.
// - IGNORE_LOOKAHEAD: ignore(n, delim) that took n characters has badbit from
//   a throw taken back. The standard stream reads ahead one character; the
//   library stops after n.

// Both libraries number flags and state bits alike, so one value serves both.
constexpr int bits(auto v) { return static_cast<int>(v); }
static_assert(bits(std::ios_base::uppercase) == bits(vrk::ios_base::uppercase) &&
              bits(std::ios_base::boolalpha) == bits(vrk::ios_base::boolalpha) &&
              bits(std::ios_base::failbit) == bits(vrk::ios_base::failbit) &&
              bits(std::ios_base::eofbit) == bits(vrk::ios_base::eofbit));

struct reader {
    const uint8_t *p, *end;
    uint8_t byte() { return p == end ? 0 : *p++; }
    // A value of T from the next bytes, zero-filled at the end of the input.
    template <class T> T value() {
        T v{};
        const size_t n = std::min(sizeof v, static_cast<size_t>(end - p));
        std::memcpy(&v, p, n);
        p += n;
        return v;
    }
    std::string text(size_t n) {
        const char* from = reinterpret_cast<const char*>(p);
        p += std::min(n, static_cast<size_t>(end - p));
        return std::string(from, reinterpret_cast<const char*>(p));
    }
};

// A string-backed buffer over either library's base: a put area of
// `put_size` characters, the input shown `chunk` characters at a time. After
// `budget` further calls to overflow it refuses every character or throws.
template <class Base> class limited_buf : public Base {
public:
    limited_buf(size_t put_size, size_t chunk, const std::string& input, bool throw_at_end)
        : put_size_(put_size), chunk_(chunk), input_(input), throw_at_end_(throw_at_end) {
        this->setp(area_, area_ + put_size_);
        this->setg(input_.data(), input_.data(), input_.data());
    }
    std::string text() const { return out_ + std::string(this->pbase(), this->pptr()); }
    int thrown = 0;
    int budget = -1; // overflow calls left; negative: no limit
    bool throws = false;

protected:
    int overflow(int c) override {
        if (c == EOF)
            return 0;
        if (budget == 0)
            return throws ? fail() : EOF;
        if (budget > 0)
            --budget;
        out_.append(this->pbase(), this->pptr());
        out_ += static_cast<char>(c);
        this->setp(area_, area_ + put_size_);
        return c;
    }
    int underflow() override {
        const size_t left = static_cast<size_t>(input_.data() + input_.size() - this->gptr());
        if (left == 0)
            return throw_at_end_ ? fail() : EOF;
        this->setg(this->eback(), this->gptr(), this->gptr() + (left < chunk_ ? left : chunk_));
        return static_cast<unsigned char>(*this->gptr());
    }

private:
    int fail() {
        ++thrown;
        throw std::runtime_error("buffer broke");
    }
    char area_[16];
    size_t put_size_, chunk_;
    std::string input_, out_;
    bool throw_at_end_;
};

template <class Buf, class Out, class In> struct side {
    side(size_t put_size, size_t chunk, const std::string& input, bool throw_at_end)
        : out_buf(put_size, chunk, "", false), in_buf(put_size, chunk, input, throw_at_end) {}
    Buf out_buf, in_buf;
    Out os{&out_buf};
    In is{&in_buf};
};

using vrk_side = side<limited_buf<vrk::basic_streambuf<char>>, vrk::ostream, vrk::istream>;
using std_side = side<limited_buf<std::streambuf>, std::ostream, std::istream>;

struct run {
    vrk_side& v;
    std_side& s;
    int op = 0;

    template <class T> void expect_equal(const char* what, const T& a, const T& b) {
        if (a == b)
            return;
        std::ostringstream va, sa;
        va << a;
        sa << b;
        std::fprintf(stderr, "operation %d: %s differs: vrk [%s], std [%s]\n", op, what,
                     va.str().c_str(), sa.str().c_str());
        std::abort();
    }
    // Runs f on both output streams, or on both input streams.
    template <class F> void outs(F f) {
        f(v.os);
        f(s.os);
    }
    template <class F> void ins(F f) {
        f(v.is);
        f(s.is);
    }
    template <class T> void insert(T x) {
        outs([&](auto& os) { os << x; });
    }
    template <class T> void insert_text(T x) {
        const int thrown = s.out_buf.thrown;
        insert(x);
        if (s.out_buf.thrown != thrown) // WIDTH_AFTER_THROW
            s.os.width(0);
    }
    template <class T> void extract(T init) {
        T a = init, b = init;
        v.is >> a;
        s.is >> b;
        expect_equal("extracted value", +a, +b);
    }
    // Runs f on all four streams.
    template <class F> void all(F f) {
        outs(f);
        ins(f);
    }
    void double_text(double d) { // DTOA
        char buf[128];
        const char* text = vrk::dtoa(d, static_cast<int>(s.os.precision()), buf, sizeof buf);
        std::ostringstream expect;
        expect.precision(s.os.precision());
        expect << d;
        if (text != nullptr)
            expect_equal("double text", std::string(text), expect.str());
    }
    void ignore(int n, int delim) {
        const int thrown = s.in_buf.thrown;
        v.is.ignore(n, delim);
        s.is.ignore(n, delim);
        if (s.is.gcount() == n && s.in_buf.thrown != thrown) // IGNORE_LOOKAHEAD
            s.is.clear(s.is.rdstate() & ~std::ios_base::badbit);
    }
    void flush(bool with_newline) {
        if (with_newline) {
            v.os << vrk::endl;
            s.os.put('\n');
        } else {
            v.os.flush();
        }
        if (s.os.good()) // FLUSH_SENTRY
            s.os.flush();
    }

    void step(reader& in);
};

using op_fn = void (*)(run&, reader&);
constexpr op_fn OPS[] = {
    [](run& r, reader& in) {
        r.all([f = in.value<uint16_t>() & 0x7fff](auto& s) { s.flags(decltype(s.flags())(f)); });
    },
    [](run& r, reader& in) {
        r.outs([w = static_cast<int8_t>(in.byte()) % 40](auto& os) { os.width(w); });
    },
    [](run& r, reader& in) {
        r.outs([f = static_cast<char>(in.byte())](auto& os) { os.fill(f); });
    },
    [](run& r, reader& in) { r.outs([p = in.byte() % 40](auto& os) { os.precision(p); }); },
    [](run& r, reader&) { r.all([](auto& s) { s.clear(); }); },
    [](run& r, reader& in) {
        const uint8_t b = in.byte();
        r.v.out_buf.budget = r.s.out_buf.budget = b % 64;
        r.v.out_buf.throws = r.s.out_buf.throws = (b & 64) != 0;
    },
    [](run& r, reader& in) { r.insert(in.value<short>()); },
    [](run& r, reader& in) { r.insert(in.value<unsigned short>()); },
    [](run& r, reader& in) { r.insert(in.value<int>()); },
    [](run& r, reader& in) { r.insert(in.value<unsigned int>()); },
    [](run& r, reader& in) { r.insert(in.value<long>()); },
    [](run& r, reader& in) { r.insert(in.value<unsigned long>()); },
    [](run& r, reader& in) { r.insert(in.value<long long>()); },
    [](run& r, reader& in) { r.insert(in.value<unsigned long long>()); },
    [](run& r, reader& in) { r.insert_text(static_cast<char>(in.byte())); },
    [](run& r, reader& in) { r.insert_text(static_cast<signed char>(in.byte())); },
    [](run& r, reader& in) { r.insert_text(static_cast<unsigned char>(in.byte())); },
    [](run& r, reader& in) { r.insert((in.byte() & 1) != 0); },
    [](run& r, reader& in) {
        const std::ios_base::fmtflags kept = r.s.os.flags();
        r.insert(reinterpret_cast<const void*>(in.value<uintptr_t>()));
        r.s.os.flags(kept); // POINTER_FLAGS
    },
    [](run& r, reader& in) {
        const uint8_t n = in.byte();
        r.insert_text(n == 255 ? nullptr : in.text(n % 24).c_str());
    },
    [](run& r, reader& in) { r.double_text(in.value<double>()); },
    [](run& r, reader& in) { r.outs([c = static_cast<char>(in.byte())](auto& os) { os.put(c); }); },
    [](run& r, reader& in) {
        const std::string t = in.text(in.byte() % 24);
        r.outs([&](auto& os) { os.write(t.data(), static_cast<long>(t.size())); });
    },
    [](run& r, reader&) { r.flush(true); },
    [](run& r, reader&) { r.flush(false); },
    [](run& r, reader& in) { r.extract(in.value<long>()); },
    [](run& r, reader& in) { r.extract(in.value<unsigned long>()); },
    [](run& r, reader& in) { r.extract(in.value<int>()); },
    [](run& r, reader& in) { r.extract(in.value<unsigned int>()); },
    [](run& r, reader& in) { r.extract(in.value<long long>()); },
    [](run& r, reader& in) { r.extract(in.value<unsigned long long>()); },
    [](run& r, reader& in) { r.extract(static_cast<char>(in.byte())); },
    [](run& r, reader&) { r.expect_equal("get", r.v.is.get(), r.s.is.get()); },
    [](run& r, reader&) { r.expect_equal("peek", r.v.is.peek(), r.s.is.peek()); },
    [](run& r, reader& in) {
        char a[32] = {}, b[32] = {};
        const uint8_t n = in.byte() % 32;
        r.v.is.read(a, n);
        r.s.is.read(b, n);
        r.expect_equal("read", std::string(a, n), std::string(b, n));
    },
    [](run& r, reader& in) {
        const uint8_t n = in.byte(), d = in.byte();
        switch (n % 5) {
        case 0:
            return r.ignore(n / 5, d == 255 ? EOF : d);
        case 1:
            return r.ins([](auto& is) { is.unget(); });
        case 2:
            return r.ins([d](auto& is) { is.putback(static_cast<char>(d)); });
        case 3:
            r.v.is >> vrk::ws;
            r.s.is >> std::ws;
            return;
        default:
            r.v.os << vrk::ends;
            r.s.os << std::ends;
        }
    },
};

void run::step(reader& in) {
    OPS[in.byte() % (sizeof OPS / sizeof OPS[0])](*this, in);
    expect_equal("output state", bits(v.os.rdstate()), bits(s.os.rdstate()));
    expect_equal("input state", bits(v.is.rdstate()), bits(s.is.rdstate()));
    expect_equal("count", bits(v.is.gcount()), bits(s.is.gcount()));
    expect_equal("width", bits(v.os.width()), bits(s.os.width()));
    expect_equal("flags", bits(v.os.flags()), bits(s.os.flags()));
}

constexpr uint8_t NUMBER_TEXTS = 'N', STRING_BUFFERS = 'S';

// Operations one input runs on the streams or the string buffers. The string
// buffers' text is copied and compared whole after each call, and a call can
// add a thousand characters: their run also ends once the text passes
// MAX_TEXT, when growth has doubled the storage five times. Unbounded, an
// input's work grew with the square of its length and its large copies, held
// in ASan's quarantine in every size class, took gigabytes.
constexpr int MAX_OPERATIONS = 200;
constexpr size_t MAX_TEXT = 16384;

// to_chars of the value as the library reads it: plain char unsigned, octal
// and hexadecimal as the bit pattern, letters upper case unless `lower`.
template <class T> std::string to_chars_text(T v, int radix, bool lower) {
    using U = std::make_unsigned_t<T>;
    char out[80];
    const auto r = std::is_same_v<T, char> || radix == 8 || radix == 16
                       ? std::to_chars(out, out + sizeof out, static_cast<U>(v), radix)
                       : std::to_chars(out, out + sizeof out, v, radix);
    std::string s(out, r.ptr);
    for (char& c : s)
        c = static_cast<char>(lower ? c : std::toupper(c));
    return s;
}

// What the conversions leave of `text` in `length` characters, and whether
// iToA answers the buffer: without a width the text and a terminator, cut to
// the buffer; with one the zero-padded text, or, longer than the width, its
// last `width` characters in radix 8, 10 and 16 (a sign is lost) and its
// first in the others; never a terminator.
std::string clipped(const std::string& text, uint32_t length, int radix, uint32_t width, bool& ok) {
    const size_t n = text.size();
    ok = length > 0 && (width == 0 ? n < length : n <= width && width <= length);
    if (length == 0)
        return "";
    if (width == 0)
        return n < length ? text + '\0' : text.substr(0, length - 1) + '\0';
    if (n > width)
        return text.substr(radix == 8 || radix == 10 || radix == 16 ? n - width : 0, width)
            .substr(0, length);
    return (std::string(width - n, '0') + text).substr(0, length);
}

// What a conversion wrote into buf, up to the last character it changed.
constexpr char UNTOUCHED = '\x7e'; // never produced
std::string written(const char* buf, size_t size) {
    while (size > 0 && buf[size - 1] == UNTOUCHED)
        --size;
    return std::string(buf, size);
}

// iToA in any radix (bad ones too), buffer length and width, then
// write_integer with any flags and width; a value of each of the six types.
template <class T> void number_text(run& r, reader& in) {
    using namespace vrk::impl;
    const T v = in.value<T>();
    const int radix = in.byte() % 40 - 2;
    const uint32_t length = in.byte(), width = in.byte();
    char buf[300];
    std::memset(buf, UNTOUCHED, sizeof buf);
    const char* got = iToA<T>(v, buf, length, radix, width);
    bool ok = false;
    const std::string text = radix < 2 || radix > 36 ? "" : to_chars_text(v, radix, radix == 16);
    r.expect_equal("iToA text", written(buf, sizeof buf),
                   text.empty() ? "" : clipped(text, length, radix, width, ok));
    r.expect_equal("iToA result", got == buf ? 1 : got == nullptr ? 0 : -1, ok ? 1 : 0);

    const auto flags = static_cast<FmtFlags>(in.value<uint16_t>());
    const int w = static_cast<int8_t>(in.byte()) % 80;
    const uint32_t base = flags & FmtFlags_basefield;
    const int b = base == FmtFlags_oct ? 8 : base == FmtFlags_hex ? 16 : 10;
    const std::string t = to_chars_text(v, b, b != 16 || !(flags & FmtFlags_uppercase));
    const uint32_t n = static_cast<uint32_t>(t.size()), uw = w < 0 ? 0 : static_cast<uint32_t>(w);
    std::memset(buf, UNTOUCHED, sizeof buf);
    r.expect_equal("write_integer count", write_integer<T>(v, buf, flags, w),
                   static_cast<unsigned long>(w == 0  ? n + 1
                                              : w < 0 ? n
                                                      : std::max(n, uw)));
    r.expect_equal("write_integer text", written(buf, sizeof buf),
                   w < 0    ? ""
                   : w == 0 ? t + '\0'
                            : clipped(t, 300, b, uw, ok));
}

constexpr void (*NUMBER_TEXT_OPS[])(run&, reader&) = {
    number_text<long>,         number_text<unsigned long>, number_text<int>,
    number_text<unsigned int>, number_text<char>,          number_text<unsigned char>};

// One call on either library's string buffer, chosen by `code`, with `arg`
// as character, count or offset; characters read go to `got`. Not inlined:
// g++ 12 at -O3 otherwise guesses the standard buffer's underflow to be the
// harness's own buffer's and warns about the object's size.
template <class Buf>
[[gnu::noinline]] long buffer_call(Buf& b, uint8_t code, uint8_t arg, char* got) {
    using ios =
        std::conditional_t<std::is_same_v<Buf, std::stringbuf>, std::ios_base, vrk::ios_base>;
    const auto which = typename ios::openmode((code / 9 % 3 + 1) * 8);
    const std::string t(arg * 4u, static_cast<char>('a' + code % 26));
    const auto pos = [](auto p) { return static_cast<long>(static_cast<std::streamoff>(p)); };
    switch (code % 9) {
    case 0:
        return b.sputc(static_cast<char>(arg));
    case 1:
        return b.sbumpc();
    case 2:
        return b.sgetc();
    case 3:
        return b.sputn(t.data(), arg * 4);
    case 4:
        return b.sgetn(got, arg);
    case 5:
        return pos(b.pubseekoff(static_cast<int8_t>(arg), typename ios::seekdir(arg % 3), which));
    case 6:
        return pos(b.pubseekpos(static_cast<int8_t>(arg), which));
    case 7:
        return b.sputbackc(static_cast<char>(arg));
    default:
        return b.sungetc();
    }
}

// A string buffer of each library over the same text and open mode: reading,
// writing (growth too), positioning and put-back, once the two positions
// have moved apart; results and the text must agree after each call.
void string_buffers(run& r, reader& in) {
    const std::string text = in.text(in.byte());
    const uint8_t m = in.byte();
    const auto mode = std::ios_base::openmode((m % 3 + 1) * 8 | (m >> 2 & 3));
    vrk::heap_allocator heap;
    vrk::stringbuf v(text.data(), text.size(), heap, vrk::ios_base::openmode(mode));
    std::stringbuf s(text, mode);
    for (; in.p != in.end && r.op < MAX_OPERATIONS && s.view().size() <= MAX_TEXT; ++r.op) {
        const uint8_t code = in.byte(), arg = in.byte();
        char got[2][256] = {};
        r.expect_equal("result", buffer_call(v, code, arg, got[0]),
                       buffer_call(s, code, arg, got[1]));
        r.expect_equal("read", std::string_view(got[0], 256), std::string_view(got[1], 256));
        const vrk::string now = v.str();
        r.expect_equal("text", std::string_view(now.data(), now.size()), s.view());
        r.expect_equal("size", v.size(), s.view().size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    reader in{data, data + size};
    const uint8_t shape = in.byte(), more = in.byte();
    const std::string input = in.text(in.byte());
    const size_t put_size = (shape >> 1) % 16, chunk = 1 + (shape >> 5);
    vrk_side v{put_size, chunk, input, (more & 1) != 0};
    std_side s{put_size, chunk, input, (more & 1) != 0};
    run r{v, s};
    if (more == STRING_BUFFERS)
        return string_buffers(r, in), 0;
    if (more == NUMBER_TEXTS) {
        for (; in.p != in.end; ++r.op)
            NUMBER_TEXT_OPS[in.byte() % 6](r, in);
        return 0;
    }
    for (; in.p != in.end && r.op < MAX_OPERATIONS; ++r.op)
        r.step(in);
    r.expect_equal("text", v.out_buf.text(), s.out_buf.text());
    return 0;
}
