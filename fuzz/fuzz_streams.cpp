// Fuzz target: vrk streams against the standard streams. The input is a
// header, an input text and a sequence of operations: settings (flags, width,
// fill, precision), insertions of every integer type, characters, bools,
// pointers, C strings and doubles, unformatted output, extractions and
// unformatted input. Both sides run the same operations over the same kind of
// buffer; after each one text, values, state bits and counts must agree,
// except where DEVIATIONS says the library differs on purpose.
//
// Input layout: byte 0 the buffers' shape (bits 1-4 the put area size, bits
// 5-7 the get area chunk less one), byte 1 bit 0 whether the input buffer
// throws at the end of its text, byte 2 the length of that text, the text,
// then operations: one byte of code each, followed by its operands.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "vrk/ext/dtoa.hpp"
#include "vrk/istream.hpp"

namespace {

// Where the library differs from the standard streams on purpose; each rule
// is applied in exactly one place below.
enum deviation {
    DOUBLE_VIA_DTOA,
    NAN_HAS_NO_TEXT,
    POINTER_KEEPS_FLAGS,
    FLUSH_WITHOUT_SENTRY,
    WIDTH_RESET_AFTER_THROW,
    IGNORE_LOOKS_AHEAD
};
struct deviation_rule {
    const char* what;
    const char* why;
};
constexpr deviation_rule DEVIATIONS[] = {
    {"a double is not inserted into a vrk::ostream; its text comes from vrk::dtoa and is compared "
     "with the standard stream's default notation at the same precision, without flags or width",
     "the library's streams have no floating-point insertion: doubles become text only as message "
     "arguments, through dtoa, which allocates nothing"},
    {"a NaN is skipped", "dtoa has no text for it (the argument shows \"NaN\" instead)"},
    {"after a pointer insertion the standard stream's flags are put back",
     "when the buffer throws during a pointer insertion the standard stream stays in hex with "
     "showbase; the library formats pointers from a copy of the flags and never changes them"},
    {"flush() (also that of endl) of a stream that is not good is run on the library's stream only",
     "the library's flush has no sentry: it syncs a failed stream and leaves its state, where the "
     "standard stream's sentry adds failbit and skips the sync"},
    {"when the buffer throws during the insertion of a character or C string, the standard "
     "stream's width is reset afterwards",
     "the library resets the width after every text insertion, whatever its outcome; the "
     "standard stream keeps it when the buffer throws"},
    {"ignore(n, delim) that took n characters: badbit from a throw in the standard stream's "
     "buffer is taken back",
     "the standard stream looks at the character after the nth, so a buffer that throws there "
     "fails it; the library stops after n characters"},
};

static_assert(sizeof DEVIATIONS / sizeof DEVIATIONS[0] == IGNORE_LOOKS_AHEAD + 1);

[[noreturn]] void mismatch(int op, const char* what, const std::string& vrk_side,
                           const std::string& std_side) {
    std::fprintf(stderr, "operation %d: %s differs\n  vrk: [%s]\n  std: [%s]\n", op, what,
                 vrk_side.c_str(), std_side.c_str());
    std::abort();
}

class reader {
public:
    reader(const uint8_t* p, size_t n) : p_(p), n_(n) {}
    bool empty() const { return n_ == 0; }
    uint8_t byte() {
        if (n_ == 0)
            return 0;
        --n_;
        return *p_++;
    }
    template <class T> T value() {
        unsigned char b[sizeof(T)];
        for (unsigned char& c : b)
            c = byte();
        T v;
        std::memcpy(&v, b, sizeof v);
        return v;
    }
    std::string text(size_t n) {
        std::string s;
        while (n-- > 0 && n_ > 0)
            s += static_cast<char>(byte());
        return s;
    }

private:
    const uint8_t* p_;
    size_t n_;
};

// A string-backed buffer over either library's base class, with a put area
// of `put_size` characters and a get area that shows the input `chunk`
// characters at a time. After `budget` further calls to overflow it refuses
// every character, or throws; at the end of input it may throw too.
template <class Base> class limited_buf : public Base {
public:
    limited_buf(size_t put_size, size_t chunk, const std::string& input, bool throw_at_end)
        : put_size_(put_size), chunk_(chunk), input_(input), throw_at_end_(throw_at_end) {
        this->setp(area_, area_ + put_size_);
        this->setg(input_.data(), input_.data(), input_.data());
    }
    void limit(int budget, bool throws) {
        budget_ = budget;
        throws_ = throws;
    }
    std::string text() const { return out_ + std::string(this->pbase(), this->pptr()); }
    int throws() const { return thrown_; }

protected:
    int overflow(int c) override {
        if (c == EOF)
            return 0;
        if (budget_ == 0) {
            if (throws_) {
                ++thrown_;
                throw std::runtime_error("buffer full");
            }
            return EOF;
        }
        if (budget_ > 0)
            --budget_;
        out_.append(this->pbase(), this->pptr());
        out_ += static_cast<char>(c);
        this->setp(area_, area_ + put_size_);
        return c;
    }
    int underflow() override {
        char* const end = input_.data() + input_.size();
        if (this->gptr() == end) {
            if (throw_at_end_) {
                ++thrown_;
                throw std::runtime_error("input broke");
            }
            return EOF;
        }
        const size_t left = static_cast<size_t>(end - this->gptr());
        this->setg(this->eback(), this->gptr(), this->gptr() + (left < chunk_ ? left : chunk_));
        return static_cast<unsigned char>(*this->gptr());
    }

private:
    char area_[16];
    size_t put_size_, chunk_;
    std::string input_, out_;
    bool throw_at_end_;
    int budget_ = -1;
    bool throws_ = false;
    int thrown_ = 0;
};

// One side of the comparison: an output and an input stream.
template <class Buf, class Out, class In> struct side {
    Buf out_buf, in_buf;
    Out os{&out_buf};
    In is{&in_buf};
    side(size_t put_size, size_t chunk, const std::string& input, bool throw_at_end)
        : out_buf(put_size, chunk, "", false), in_buf(put_size, chunk, input, throw_at_end) {}
};

using vrk_side = side<limited_buf<vrk::basic_streambuf<char>>, vrk::ostream, vrk::istream>;
using std_side = side<limited_buf<std::streambuf>, std::ostream, std::istream>;

constexpr std::ios_base::fmtflags STD_FLAGS[] = {
    std::ios_base::boolalpha, std::ios_base::dec,       std::ios_base::fixed,
    std::ios_base::hex,       std::ios_base::internal,  std::ios_base::left,
    std::ios_base::oct,       std::ios_base::right,     std::ios_base::scientific,
    std::ios_base::showbase,  std::ios_base::showpoint, std::ios_base::showpos,
    std::ios_base::skipws,    std::ios_base::unitbuf,   std::ios_base::uppercase};
constexpr vrk::ios_base::fmtflags VRK_FLAGS[] = {
    vrk::ios_base::boolalpha, vrk::ios_base::dec,       vrk::ios_base::fixed,
    vrk::ios_base::hex,       vrk::ios_base::internal,  vrk::ios_base::left,
    vrk::ios_base::oct,       vrk::ios_base::right,     vrk::ios_base::scientific,
    vrk::ios_base::showbase,  vrk::ios_base::showpoint, vrk::ios_base::showpos,
    vrk::ios_base::skipws,    vrk::ios_base::unitbuf,   vrk::ios_base::uppercase};

unsigned state_of(const vrk::ios& s) {
    const vrk::ios_base::iostate st = s.rdstate();
    return ((st & vrk::ios_base::badbit) != 0 ? 1 : 0) |
           ((st & vrk::ios_base::eofbit) != 0 ? 2 : 0) |
           ((st & vrk::ios_base::failbit) != 0 ? 4 : 0);
}
unsigned state_of(const std::ios& s) {
    const std::ios_base::iostate st = s.rdstate();
    return ((st & std::ios_base::badbit) != 0 ? 1 : 0) |
           ((st & std::ios_base::eofbit) != 0 ? 2 : 0) |
           ((st & std::ios_base::failbit) != 0 ? 4 : 0);
}

struct run {
    vrk_side& v;
    std_side& s;
    int op = 0;

    void check_streams() {
        if (state_of(v.os) != state_of(s.os))
            mismatch(op, "output state", std::to_string(state_of(v.os)),
                     std::to_string(state_of(s.os)));
        if (state_of(v.is) != state_of(s.is))
            mismatch(op, "input state", std::to_string(state_of(v.is)),
                     std::to_string(state_of(s.is)));
        if (v.os.width() != s.os.width())
            mismatch(op, "width", std::to_string(v.os.width()), std::to_string(s.os.width()));
        for (size_t i = 0; i < sizeof STD_FLAGS / sizeof STD_FLAGS[0]; ++i)
            if (((v.os.flags() & VRK_FLAGS[i]) != 0) != ((s.os.flags() & STD_FLAGS[i]) != 0))
                mismatch(op, "flags", std::to_string(v.os.flags()), std::to_string(s.os.flags()));
    }

    template <class T> void insert(T x) {
        v.os << x;
        s.os << x;
    }
    template <class T> void extract(T init) {
        T a = init, b = init;
        v.is >> a;
        s.is >> b;
        if (a != b)
            mismatch(op, "extracted value", std::to_string(a), std::to_string(b));
    }
    template <class T> void insert_text(T x) {
        const int thrown = s.out_buf.throws();
        insert(x);
        if (s.out_buf.throws() != thrown) // WIDTH_RESET_AFTER_THROW
            s.os.width(0);
    }
    void compare_count() {
        if (v.is.gcount() != s.is.gcount())
            mismatch(op, "count", std::to_string(v.is.gcount()), std::to_string(s.is.gcount()));
    }
    void compare_char(int a, int b) {
        if (a != b)
            mismatch(op, "character", std::to_string(a), std::to_string(b));
    }

    void set_flags(unsigned bits) {
        vrk::ios_base::fmtflags vf{};
        std::ios_base::fmtflags sf{};
        for (size_t i = 0; i < sizeof STD_FLAGS / sizeof STD_FLAGS[0]; ++i)
            if ((bits & (1U << i)) != 0) {
                vf |= VRK_FLAGS[i];
                sf |= STD_FLAGS[i];
            }
        v.os.flags(vf);
        v.is.flags(vf);
        s.os.flags(sf);
        s.is.flags(sf);
    }

    void double_text(double d) {
        const int precision = static_cast<int>(s.os.precision());
        char buf[128];
        const char* text = vrk::dtoa(d, precision, buf, sizeof buf);
        if (text == nullptr) // NAN_HAS_NO_TEXT
            return;
        std::ostringstream expect; // DOUBLE_VIA_DTOA
        expect.precision(precision);
        expect << d;
        if (expect.str() != text)
            mismatch(op, "double text", text, expect.str());
    }

    void step(reader& in) {
        const uint8_t code = in.byte();
        switch (code % 36) {
        case 0:
            set_flags(in.value<uint16_t>());
            break;
        case 1: {
            const int w = static_cast<int8_t>(in.byte()) % 40;
            v.os.width(w);
            s.os.width(w);
            break;
        }
        case 2: {
            const char f = static_cast<char>(in.byte());
            v.os.fill(f);
            s.os.fill(f);
            break;
        }
        case 3: {
            const int p = in.byte() % 40;
            v.os.precision(p);
            s.os.precision(p);
            break;
        }
        case 4:
            v.os.clear();
            v.is.clear();
            s.os.clear();
            s.is.clear();
            break;
        case 5: {
            const uint8_t b = in.byte();
            v.out_buf.limit(b % 64, (b & 64) != 0);
            s.out_buf.limit(b % 64, (b & 64) != 0);
            break;
        }
        case 6:
            insert(in.value<short>());
            break;
        case 7:
            insert(in.value<unsigned short>());
            break;
        case 8:
            insert(in.value<int>());
            break;
        case 9:
            insert(in.value<unsigned int>());
            break;
        case 10:
            insert(in.value<long>());
            break;
        case 11:
            insert(in.value<unsigned long>());
            break;
        case 12:
            insert(in.value<long long>());
            break;
        case 13:
            insert(in.value<unsigned long long>());
            break;
        case 14:
            insert_text(static_cast<char>(in.byte()));
            break;
        case 15:
            insert_text(static_cast<signed char>(in.byte()));
            break;
        case 16:
            insert_text(static_cast<unsigned char>(in.byte()));
            break;
        case 17:
            insert((in.byte() & 1) != 0);
            break;
        case 18: {
            const std::ios_base::fmtflags kept = s.os.flags();
            insert(reinterpret_cast<const void*>(in.value<uintptr_t>()));
            s.os.flags(kept); // POINTER_KEEPS_FLAGS
            break;
        }
        case 19: {
            const uint8_t n = in.byte();
            if (n == 255) {
                insert_text(static_cast<const char*>(nullptr));
            } else {
                const std::string t = in.text(n % 24);
                insert_text(t.c_str());
            }
            break;
        }
        case 20:
            double_text(in.value<double>());
            break;
        case 21: {
            const char c = static_cast<char>(in.byte());
            v.os.put(c);
            s.os.put(c);
            break;
        }
        case 22: {
            const std::string t = in.text(in.byte() % 24);
            v.os.write(t.data(), static_cast<vrk::streamsize>(t.size()));
            s.os.write(t.data(), static_cast<std::streamsize>(t.size()));
            break;
        }
        case 23:
            v.os << vrk::endl;
            s.os.put('\n');
            if (s.os.good()) // FLUSH_WITHOUT_SENTRY
                s.os.flush();
            break;
        case 24:
            v.os.flush();
            if (s.os.good()) // FLUSH_WITHOUT_SENTRY
                s.os.flush();
            break;
        case 25:
            extract(in.value<long>());
            break;
        case 26:
            extract(in.value<unsigned long>());
            break;
        case 27:
            extract(in.value<int>());
            break;
        case 28:
            extract(in.value<unsigned int>());
            break;
        case 29:
            extract(in.value<long long>());
            break;
        case 30:
            extract(in.value<unsigned long long>());
            break;
        case 31: {
            const char init = static_cast<char>(in.byte());
            char a = init, b = init;
            v.is >> a;
            s.is >> b;
            compare_char(static_cast<unsigned char>(a), static_cast<unsigned char>(b));
            break;
        }
        case 32:
            compare_char(v.is.get(), s.is.get());
            compare_count();
            break;
        case 33:
            compare_char(v.is.peek(), s.is.peek());
            break;
        case 34: {
            char a[32] = {}, b[32] = {};
            const uint8_t n = in.byte() % 32;
            v.is.read(a, n);
            s.is.read(b, n);
            compare_count();
            if (std::memcmp(a, b, sizeof a) != 0)
                mismatch(op, "read", std::string(a, n), std::string(b, n));
            break;
        }
        default: {
            const uint8_t n = in.byte();
            const uint8_t d = in.byte();
            const int delim = d == 255 ? EOF : d;
            switch (n % 5) {
            case 0: {
                const int thrown = s.in_buf.throws();
                v.is.ignore(n / 5, delim);
                s.is.ignore(n / 5, delim);
                compare_count();
                if (s.is.gcount() == n / 5 && s.in_buf.throws() != thrown) // IGNORE_LOOKS_AHEAD
                    s.is.clear(s.is.rdstate() & ~std::ios_base::badbit);
            } break;
            case 1:
                v.is.unget();
                s.is.unget();
                break;
            case 2:
                v.is.putback(static_cast<char>(delim));
                s.is.putback(static_cast<char>(delim));
                break;
            case 3:
                v.is >> vrk::ws;
                s.is >> std::ws;
                break;
            default:
                v.os << vrk::ends;
                s.os << std::ends;
                break;
            }
            break;
        }
        }
        check_streams();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    reader in(data, size);
    const uint8_t setup = in.byte();
    const uint8_t more = in.byte();
    const std::string input = in.text(in.byte());
    vrk_side v((setup >> 1) % 16, 1 + (setup >> 5), input, (more & 1) != 0);
    std_side s((setup >> 1) % 16, 1 + (setup >> 5), input, (more & 1) != 0);
    run r{v, s};
    while (!in.empty() && r.op < 200) {
        r.step(in);
        ++r.op;
    }
    const std::string vt = v.out_buf.text(), st = s.out_buf.text();
    if (vt != st)
        mismatch(r.op, "text", vt, st);
    return 0;
}
