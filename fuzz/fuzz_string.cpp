// Fuzz target: vrk::string against std::string. The input is a sequence of
// operations on four strings, two on each of two counting allocators; after
// every step each text equals its std::string model, each heap block's share
// count equals the number of strings holding it, and each allocator holds
// exactly the distinct blocks in use. The input may make the next few
// requests of an allocator fail: the operation then raises std::bad_alloc and
// leaves every text as it was, like any other raised error (a run of
// push_back keeps what was appended before the failure).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <new>
#include <string>
#include <utility>

#include "support/test_allocator.hpp"
#include "vrk/error_registry.hpp"
#include "vrk/exception.hpp"
#include "vrk/string.hpp"

namespace {

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "fuzz_string.cpp:%d: %s\n", __LINE__, #cond);                     \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

constexpr int SLOTS = 4; // 0 and 1 on the first allocator, 2 and 3 on the second

class input {
public:
    input(const uint8_t* p, size_t n) : p_(p), end_(p + n) {}
    bool more() const { return p_ != end_; }
    unsigned byte() { return p_ != end_ ? *p_++ : 0; }
    bool bit() { return byte() & 1; }
    int slot() { return static_cast<int>(byte() % SLOTS); }
    // A text of byte() characters counting up from a chosen one, NUL and
    // values above 127 included.
    std::string text() {
        const size_t n = byte();
        const unsigned first = byte();
        std::string s(n, '\0');
        for (size_t i = 0; i < n; ++i)
            s[i] = static_cast<char>(first + i);
        return s;
    }

private:
    const uint8_t* p_;
    const uint8_t* end_;
};

int sign(int r) { return (r > 0) - (r < 0); }
std::string text_of(const vrk::string& s) { return std::string(s.data(), s.size()); }

// What a change of a read-only view raises: its first 127 characters, up to a NUL.
std::string read_only_text(const vrk::string& s) {
    const std::string t = text_of(s).substr(0, 127);
    return t.substr(0, t.find('\0'));
}

struct harness {
    harness(vrk_test::test_allocator& fa, vrk_test::test_allocator& fb) : a(fa), b(fb) {}

    vrk_test::test_allocator& a;
    vrk_test::test_allocator& b;
    std::deque<std::string> viewed; // texts of views: stable, outlive the strings
    vrk::string s[SLOTS]{vrk::string(a), vrk::string(a), vrk::string(b), vrk::string(b)};
    std::string m[SLOTS];
    // What the step must raise, set before the call: rvalue_error from this
    // view, or the out-of-range error.
    const vrk::string* guard = nullptr;
    bool out_of_range = false;
    std::string before[SLOTS]; // the texts to expect when the step raises

    vrk_test::test_allocator& alloc_of(int i) { return i < 2 ? a : b; }
    // A change of s[i] must raise rvalue_error when s[i] is a view.
    void guard_change(int i) {
        if (s[i].is_read_only())
            guard = &s[i];
    }

    void step(input& in) {
        const int i = in.slot(), j = in.slot();
        vrk::string& x = s[i];
        const vrk::string& y = s[j];
        switch (in.byte() % 14) {
        case 0: { // assign a text from outside, counted or up to its NUL
            const bool counted = in.bit();
            const std::string t = in.text();
            guard_change(i);
            if (counted)
                x.assign(t.data(), t.size());
            else
                x = t.c_str();
            m[i] = counted ? t : t.c_str();
            break;
        }
        case 1: { // assign a piece of a text: its own (the string clips n) or another's
            const size_t off = in.byte() % (m[j].size() + 1);
            size_t n = in.byte();
            if (i != j || off == m[j].size())
                n = std::min(n, m[j].size() - off);
            guard_change(i);
            x.assign(y.data() + off, n);
            m[i] = m[j].substr(off, n);
            break;
        }
        case 2: { // insert, one position beyond the end refused
            const size_t off = in.byte() % (m[i].size() + 2);
            const char c = static_cast<char>(in.byte());
            const char* text = std::as_const(x).data(); // not unshared yet
            guard_change(i);
            out_of_range = !guard && off > m[i].size();
            CHECK(*x.insert(text ? text + off : text, c) == c);
            m[i].insert(off, 1, c);
            break;
        }
        case 3: { // append a text, a piece of a text (its own too), characters
                  // or a text up to its NUL
            const unsigned how = in.byte() % 4;
            const size_t off = in.byte() % (m[j].size() + 1);
            const std::string t = how == 1 ? m[j].substr(off, in.byte()) : in.text() + '.';
            guard_change(i);
            if (how == 0)
                x.append(t.data(), t.size());
            else if (how == 1)
                x.append(y.data() + off, t.size());
            else if (how == 3)
                x += t.c_str();
            else
                for (char c : t) { // a failure keeps the characters before it
                    x.push_back(c);
                    m[i] += c;
                    before[i] = m[i];
                }
            if (how != 2)
                m[i] += how == 3 ? t.c_str() : t;
            break;
        }
        case 4: // copy assignment: long texts on one allocator share the block
            if (&x != &y)
                guard_change(i);
            x = y;
            m[i] = m[j];
            if (&x.get_allocator() == &y.get_allocator() && y.is_heap() && y.size() > 39)
                CHECK(std::as_const(x).data() == y.data());
            break;
        case 5: { // move assignment: across allocators a copy
            if (&x != &y)
                guard_change(i);
            const std::string t = m[j];
            x = std::move(s[j]);
            m[i] = t;
            m[j] = text_of(s[j]); // the moved-from text is left to the string
            break;
        }
        case 6: // swap: across allocators both texts are copied, views refused
            if (&x.get_allocator() != &y.get_allocator()) {
                guard_change(j);
                guard_change(i);
            }
            x.swap(s[j]);
            std::swap(m[i], m[j]);
            break;
        case 7: { // raw_resize, the new characters written first (the
                  // stream buffer's way) or after
            const size_t n = in.byte(), old = m[i].size();
            const bool use_buffer = in.bit();
            bool first = in.bit();
            const std::string t = in.text() + std::string(n, 'z');
            guard_change(i);
            if (first && !guard && n > old) {
                char* d = x.data(); // unshares: the storage is about to be written
                first = n <= x.capacity();
                if (first)
                    t.copy(d + old, n - old);
            }
            x.raw_resize(n, use_buffer);
            CHECK(x.is_inline() || !use_buffer || n > 39); // a short text goes inline
            if (n > old && !first)
                t.copy(x.data() + old, n - old);
            m[i].resize(n);
            if (n > old)
                m[i].replace(old, n - old, t, 0, n - old);
            break;
        }
        case 8: // reserve or clear
            guard_change(i);
            if (in.bit())
                x.reserve(in.byte());
            else {
                x.clear();
                m[i].clear();
            }
            break;
        case 9: { // becomes a read-only view (of nothing, sometimes)
            viewed.push_back(in.text());
            const char* p = in.bit() ? viewed.back().data() : nullptr;
            vrk::string v = vrk::c_str(p, p ? viewed.back().size() : 0, alloc_of(i));
            x.swap(v);
            m[i] = p ? viewed.back() : "";
            break;
        }
        case 10: // write through operator[], which unshares first (not a view)
            if (x.is_read_only())
                CHECK(x.data() == std::as_const(x).data());
            else if (!m[i].empty()) {
                const size_t k = in.byte() % m[i].size();
                m[i][k] = static_cast<char>(in.byte());
                x[k] = m[i][k];
            }
            break;
        case 11: { // queries, and new strings from two
            const size_t pos = in.byte(), n = in.byte();
            const char c = static_cast<char>(in.byte());
            const std::string sub = m[j].substr(0, n % 8), z = sub.c_str();
            CHECK(x.find(sub.data(), pos, sub.size()) == m[i].find(sub, pos));
            CHECK(x.find(z.c_str(), pos) == m[i].find(z, pos));
            CHECK(x.rfind(c, pos) == m[i].rfind(c, pos));
            CHECK(x.compare(y) == sign(m[i].compare(m[j])));
            CHECK(x.compare(z.c_str()) == sign(m[i].compare(z)) && (x == y) == (m[i] == m[j]));
            CHECK(text_of(x + y) == m[i] + m[j] && text_of(x + z.c_str()) == m[i] + z);
            CHECK(text_of(z.c_str() + y) == z + m[j] && text_of(x + c) == m[i] + c);
            out_of_range = pos > m[i].size();
            const std::string got = text_of(x.substr(pos, n)); // raises first
            CHECK(got == m[i].substr(pos, n));
            break;
        }
        case 12: { // a copy on this string's allocator takes its place
            vrk::string t(y, alloc_of(i));
            x.swap(t);
            m[i] = m[j];
            break;
        }
        default: { // the next few requests of an allocator fail
            vrk_test::test_allocator& f = in.bit() ? a : b;
            f.reset_requests();
            f.fail_at(in.byte() % 4);
        }
        }
    }

    // Every text equals its model; share counts and allocator balances match
    // the blocks the four strings hold.
    void check() const {
        long blocks[2] = {0, 0};
        for (int i = 0; i < SLOTS; ++i) {
            const vrk::string& x = s[i];
            CHECK(text_of(x) == m[i]);
            if (x.is_read_only())
                continue;
            CHECK(x.c_str()[x.size()] == '\0' && x.capacity() >= x.size());
            CHECK(x.is_inline() || x.is_heap());
            if (!x.is_heap())
                continue;
            size_t holders = 0;
            bool first = true;
            for (int k = 0; k < SLOTS; ++k)
                if (s[k].is_heap() && s[k].data() == x.data()) {
                    ++holders;
                    first = first && k >= i;
                }
            CHECK(x.share_count() == holders);
            blocks[i / 2] += first;
        }
        CHECK(a.balance() == blocks[0] && b.balance() == blocks[1]);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static vrk_test::test_allocator a, b;
    a.fail_never();
    b.fail_never();
    {
        harness h{a, b};
        input in(data, size);
        while (in.more()) {
            std::copy(h.m, h.m + SLOTS, h.before);
            const long failures = a.failures() + b.failures();
            h.guard = nullptr;
            h.out_of_range = false;
            bool raised = true;
            try {
                h.step(in);
                raised = false;
            } catch (const vrk::rvalue_error& e) {
                e.mark_processed();
                CHECK(h.guard && e.what() == read_only_text(*h.guard));
            } catch (const vrk::exception& e) {
                e.mark_processed();
                CHECK(h.out_of_range && e.error_no() == vrk::ERR_VRK_OUT_OF_RANGE.number());
            } catch (const std::bad_alloc&) {
                CHECK(a.failures() + b.failures() > failures);
            }
            if (raised) // nothing changed
                std::copy(h.before, h.before + SLOTS, h.m);
            else
                CHECK(!h.guard && !h.out_of_range);
            h.check();
        }
    }
    CHECK(a.balance() == 0 && b.balance() == 0);
    CHECK(a.bad_releases() == 0 && b.bad_releases() == 0);
    return 0;
}
