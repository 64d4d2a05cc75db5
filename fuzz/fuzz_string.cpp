// Fuzz target: vrk::string against std::string. The input is a sequence of
// operations on four strings, two on each of two counting allocators; after
// every step each text equals its std::string model, each heap block's share
// count equals the number of strings holding it, and each allocator holds
// exactly the distinct blocks in use. A step that raises (a change of a
// read-only view, a position beyond the end, a size at the limit, or an
// allocation the input made fail) raises exactly that error and leaves every
// text as it was; only a run of push_back keeps what it appended before.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "support/forms.hpp"
#include "support/test_allocator.hpp"
#include "vrk/exception.hpp"
#include "vrk/string.hpp"

#define CHECK(c)                                                                                   \
    ((c) ? void() : (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #c), std::abort()))

namespace {

constexpr int SLOTS = 4; // 0 and 1 on the first allocator, 2 and 3 on the second
const std::string OVERFLOW_TEXT = "vrk::string integer overflow";
vrk_test::test_allocator alloc[2];

struct input {
    const uint8_t *p, *end;
    unsigned byte() { return p != end ? *p++ : 0; }
    // A text of byte() characters counting up from a chosen one, NUL and
    // values above 127 included.
    std::string text() {
        std::string s(byte(), '\0');
        const unsigned first = byte();
        for (size_t i = 0; i < s.size(); ++i)
            s[i] = static_cast<char>(first + i);
        return s;
    }
};

int sign(int r) { return (r > 0) - (r < 0); }
using vrk_test::text_of;

struct harness {
    std::deque<std::string> viewed; // texts of views: stable, outlive the strings
    vrk::string s[SLOTS]{vrk::string(alloc[0]), vrk::string(alloc[0]), vrk::string(alloc[1]),
                         vrk::string(alloc[1])};
    std::string m[SLOTS], before[SLOTS]; // models, and what to expect if a step raises
    bool raises = false;                 // set before the call: the step must raise
    std::string expect;                  // with this text

    // A change of s[i] raises rvalue_error with its first 127 characters, up to
    // a NUL, when it is a view; returns whether the step must raise.
    bool refused(int i) {
        if (raises || !s[i].is_read_only())
            return raises;
        expect = text_of(s[i]).substr(0, 127);
        expect.resize(std::min(expect.find('\0'), expect.size()));
        return raises = true;
    }
    // A position beyond the end raises the out-of-range error (after the view check).
    void beyond(size_t pos, size_t size) {
        if (!raises && pos > size) {
            raises = true;
            expect = "Position " + std::to_string(pos) + " out of range [0, " +
                     std::to_string(size) + "]";
        }
    }

    void step(input& in) {
        const int i = static_cast<int>(in.byte() % SLOTS), j = static_cast<int>(in.byte() % SLOTS);
        vrk::string& x = s[i];
        const vrk::string& y = s[j];
        const unsigned op = in.byte() % 13, how = in.byte();
        switch (op) {
        case 0: { // assign a text, counted or up to its NUL
            const std::string t = in.text();
            refused(i);
            if (how & 1)
                x = t.c_str();
            else
                x.assign(t.data(), t.size());
            m[i] = how & 1 ? t.c_str() : t;
            break;
        }
        case 1: { // assign a piece of a text: its own (the string clips n) or another's
            const size_t off = in.byte() % (m[j].size() + 1), n = in.byte();
            refused(i);
            x.assign(y.data() + off,
                     i == j && off < m[j].size() ? n : std::min(n, m[j].size() - off));
            m[i] = m[j].substr(off, n);
            break;
        }
        case 2: { // insert, one position beyond the end refused
            const size_t off = how % (m[i].size() + 2);
            const char c = static_cast<char>(in.byte());
            const char* text = std::as_const(x).data(); // not unshared yet
            refused(i);
            beyond(off, m[i].size());
            CHECK(*x.insert(text ? text + off : text, c) == c);
            m[i].insert(off, 1, c);
            break;
        }
        case 3: { // append a text, a piece of a text (its own too), or characters one by one
            const size_t off = in.byte() % (m[j].size() + 1);
            const std::string t = how % 3 == 1 ? m[j].substr(off, in.byte()) : in.text() + '.';
            refused(i);
            if (how % 3 == 0)
                x.append(t.data(), t.size());
            else if (how % 3 == 1)
                x.append(y.data() + off, t.size());
            for (size_t k = 0; how % 3 == 2 && k < t.size(); ++k) {
                if (how & 8)
                    x += t[k];
                else
                    x.push_back(t[k]);
                before[i] = m[i] += t[k];
            }
            m[i] = how % 3 == 2 ? m[i] : m[i] + t;
            break;
        }
        case 4: { // copy (long texts share a block on one allocator) or move
            const std::string t = m[j];
            if (i != j)
                refused(i);
            if (how & 1)
                x = std::move(s[j]);
            else if (how & 2)
                x.assign(y);
            else
                x = y;
            m[i] = t;
            m[j] = text_of(y); // a moved-from text is left to the string
            const bool shares =
                !(how & 1) && &x.get_allocator() == &y.get_allocator() && y.size() > 39;
            CHECK(!shares || !y.is_heap() || std::as_const(x).data() == y.data());
            break;
        }
        case 5: { // swap: on one allocator the storage, across it copies both texts
            const bool same = &x.get_allocator() == &y.get_allocator();
            const long requests = alloc[i / 2].requests();
            if (!same && !refused(i))
                refused(j);
            x.swap(s[j]);
            std::swap(m[i], m[j]);
            CHECK(!same || alloc[i / 2].requests() == requests);
            break;
        }
        case 6: { // raw_resize, the new characters written first (the stream
                  // buffer's way) or after
            const size_t n = in.byte(), old = std::min(n, m[i].size());
            const bool use_buffer = how & 1;
            bool first = how & 2;
            const std::string t = in.text() + std::string(n, 'z');
            if (!refused(i) && first) {
                char* d = x.data(); // unshares: the storage is about to be written
                if ((first = n <= x.capacity()))
                    t.copy(d + old, n - old);
            }
            x.raw_resize(n, use_buffer);
            CHECK(x.is_inline() || !use_buffer || n > 39); // a short text goes inline
            if (!first)
                t.copy(x.data() + old, n - old);
            m[i].resize(n);
            m[i].replace(old, n - old, t, 0, n - old);
            break;
        }
        case 7: // reserve or clear
            refused(i);
            if (how & 1) {
                x.reserve(in.byte());
            } else {
                x.clear();
                m[i].clear();
            }
            break;
        case 8: { // becomes a read-only view (of nothing, sometimes)
            const std::string& t = viewed.emplace_back(in.text());
            vrk::string v = vrk::c_str(how & 1 ? t.data() : nullptr, t.size(), x.get_allocator());
            x.swap(v);
            m[i] = how & 1 ? t : "";
            break;
        }
        case 9: // write through operator[], which unshares first (not a view)
            if (x.is_read_only())
                CHECK(x.data() == std::as_const(x).data());
            else if (!m[i].empty())
                x[how % m[i].size()] = m[i][how % m[i].size()] = static_cast<char>(in.byte());
            break;
        case 10: { // queries, and new strings from two
            const size_t pos = how, n = in.byte();
            const char c = static_cast<char>(n);
            const std::string sub = m[j].substr(0, n % 8), z = sub.c_str();
            CHECK(x.find(sub.data(), pos, sub.size()) == m[i].find(sub, pos));
            CHECK(x.find(z.c_str(), pos) == m[i].find(z, pos) &&
                  x.rfind(c, pos) == m[i].rfind(c, pos));
            CHECK(x.find(y, pos) == m[i].find(m[j], pos) && x.find(c, pos) == m[i].find(c, pos) &&
                  x.length() == m[i].size());
            CHECK(x.compare(y) == sign(m[i].compare(m[j])) && (x == y) == (m[i] == m[j]));
            CHECK(x.compare(z.c_str()) == sign(m[i].compare(z)));
            CHECK(text_of(x + y) == m[i] + m[j] && text_of(x + z.c_str()) == m[i] + z);
            CHECK(text_of(z.c_str() + y) == z + m[j] && text_of(x + c) == m[i] + c);
            beyond(pos, m[i].size());
            const std::string got = text_of(x.substr(pos, n)); // raises first
            CHECK(got == m[i].substr(pos, n));
            break;
        }
        case 11: { // sizes at the limit: overflow when size + 9 wraps,
                   // underflow when negative as signed 64-bit
            const size_t n = how & 1 ? ~size_t{0} - (how >> 1 & 15) : size_t{1} << 63;
            const unsigned call = how >> 5 & 3;
            const size_t total = call == 3 ? m[i].size() + n : n;
            if (!refused(i)) {
                raises = true;
                expect = total > ~size_t{0} - 9 || total < n ? OVERFLOW_TEXT
                                                             : "vrk::string integer underflow";
            }
            if (call == 0)
                x.reserve(n);
            else if (call == 1)
                x.raw_resize(n, how & 128);
            else if (call == 2)
                x.assign("x", n);
            else
                x.append("x", n);
            break;
        }
        default: // the next few requests of an allocator fail
            alloc[how & 1].reset_requests();
            alloc[how & 1].fail_at(in.byte() % 4);
        }
    }

    // Every text equals its model; share counts and allocator balances match
    // the blocks the four strings hold.
    void check() const {
        std::set<const char*> blocks[2];
        for (int i = 0; i < SLOTS; ++i) {
            const vrk::string& x = s[i];
            CHECK(text_of(x) == m[i]);
            if (x.is_read_only())
                continue;
            CHECK(x.c_str()[x.size()] == '\0' && x.capacity() >= x.size() &&
                  (x.is_inline() || x.is_heap()));
            size_t holders = 0;
            for (const vrk::string& other : s)
                holders += x.is_heap() && other.is_heap() && other.data() == x.data();
            CHECK(x.share_count() == holders);
            if (holders)
                blocks[i / 2].insert(x.data());
        }
        for (int k = 0; k < 2; ++k)
            CHECK(alloc[k].balance() == static_cast<long>(blocks[k].size()));
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (auto& a : alloc)
        a.fail_never();
    {
        harness h;
        input in{data, data + size};
        while (in.p != in.end) {
            std::copy(h.m, h.m + SLOTS, h.before);
            const long failures = alloc[0].failures() + alloc[1].failures();
            h.raises = false;
            try {
                h.step(in);
                CHECK(!h.raises);
            } catch (const vrk::exception& e) {
                e.mark_processed();
                CHECK(h.raises && e.what() == h.expect &&
                      !std::strcmp(e.file().get(), "sys/src/vrk/string"));
                CHECK(!dynamic_cast<const vrk::overflow_error*>(&e) == (h.expect != OVERFLOW_TEXT));
                std::copy(h.before, h.before + SLOTS, h.m);
            } catch (const std::bad_alloc&) {
                CHECK(alloc[0].failures() + alloc[1].failures() > failures);
                std::copy(h.before, h.before + SLOTS, h.m);
            }
            h.check();
        }
    }
    for (auto& a : alloc)
        CHECK(a.balance() == 0 && a.bad_releases() == 0);
    return 0;
}
