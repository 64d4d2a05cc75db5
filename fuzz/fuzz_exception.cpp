// Fuzz target: sequences of exception operations on four handles, each held
// in a vrk::auto_object: create, append messages, arguments and exceptions,
// copy, assign, throw, print, what, iterate, serialize and read back,
// register and unregister, drop; the exceptions' allocator fails at a
// request the input chooses. After every step:
// - a message or text argument just appended shows in the short form, or a
//   failure code ("(code:N)") records that memory ran out;
// - printing and what(alloc, ...) give a prefix of the healthy text, the
//   whole text when nothing failed, and mark the exception as looked at;
// - a round trip through the wire format gives the same short form (and the
//   same messages in the long form) whenever no allocation failed;
// - refused appends link nothing; chains and the thread's registration list
//   end, and registrations move with copies as they should;
// - the host hears of a forgotten exception only when the last holder of an
//   unlinked block nobody looked at goes, exactly once; of a caught one only
//   when it is dumped; never of an unhandled one.
// At the end every block is back, none released twice, nothing registered.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "support/test_allocator.hpp"
#include "support/test_host.hpp"
#include "vrk/exception.hpp"
#include "vrk/ext/auto_object.hpp"
#include "vrk/sstream.hpp"

#define CHECK(c)                                                                                   \
    ((c) ? void() : (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #c), std::abort()))

namespace {

using vrk::exception;
using holder = vrk::auto_object<exception>;

constexpr int SLOTS = 4;
constexpr size_t MAX_CHAIN = 64;         // more blocks than a sequence can create: a loop
vrk_test::test_allocator alloc, healthy; // the exceptions'; the checks' own
const void* const FRAMES = reinterpret_cast<const void*>(0x1000);
// Argument names are kept by pointer: they must outlive the exceptions. A
// sequence (of at most 200 steps) never uses one twice, so each value shows.
std::string NAMES[256];
const vrk::error_code CODES[] = {{11, "plain", nullptr},
                                 {12, "with $P0$ and $P1$", nullptr},
                                 {13, "$P2$$P3$ then $P0$ and a lone $", nullptr},
                                 {14, nullptr, nullptr}};

struct input {
    const uint8_t *p, *end;
    unsigned byte() { return p != end ? *p++ : 0; }
};

const volatile vrk::exception_data* block(const holder& h) {
    return h.empty() ? nullptr : h->data();
}
bool aligned(const exception* e) { return reinterpret_cast<uintptr_t>(e->data()) % 16 == 0; }

// Texts for the checks, on the healthy allocator, leaving every processed
// flag of the chain as it was: checking must not count as looking.
template <class F> std::string unseen(const exception& e, F&& text) {
    std::vector<std::pair<const volatile vrk::exception_data*, bool>> flags;
    for (auto* b = e.data(); b != nullptr && flags.size() < MAX_CHAIN; b = b->next())
        flags.emplace_back(b, b->done());
    const vrk::string s = text();
    for (auto& [b, done] : flags)
        if (!done)
            const_cast<volatile vrk::exception_data*>(b)->clear_done();
    return std::string(s.data(), s.size());
}
std::string short_form(const exception& e, bool suppress_stack = true) {
    return unseen(e, [&] { return e.what(healthy, suppress_stack); });
}
std::string long_form(const exception& e) {
    return unseen(e, [&] {
        vrk::osstream os(healthy);
        e.print(os);
        return os.str();
    });
}
// The messages of the long form: each exception's and message's header and
// text, without the throw locations (a round trip may drop the stack).
std::string long_messages(const exception& e) {
    const std::string all = long_form(e);
    std::string kept;
    for (size_t at = 0, nl; at < all.size(); at = nl + 1) {
        nl = std::min(all.find('\n', at), all.size());
        const std::string line = all.substr(at, nl - at);
        if (line.rfind("exception  ", 0) == 0 || line.rfind("    ", 0) == 0)
            kept += line + '\n';
    }
    return kept;
}

struct harness {
    holder h[SLOTS];
    int texts = 0;   // unique markers and names of appended texts
    int reports = 0; // forgotten exceptions the sequence earned
    int dumps = 0;   // caught exceptions the sequence reported
    long failures = alloc.failures();

    // Whether some block of a held chain links to `b`.
    bool linked(const volatile vrk::exception_data* b) const {
        for (const holder& x : h) {
            size_t n = 0;
            for (auto* c = block(x); c != nullptr; c = c->next(), ++n) {
                CHECK(n < MAX_CHAIN);
                if (c->next() == b)
                    return true;
            }
        }
        return false;
    }
    // Drops what slot i holds, if anything; the host hears of it exactly when this was
    // the last holder of an unlinked block nobody looked at.
    void drop(int i) {
        const auto* b = block(h[i]);
        const bool report =
            b != nullptr && !linked(b) && !b->done() &&
            std::count_if(h, h + SLOTS, [&](auto& y) { return block(y) == b; }) == 1;
        const int before = vrk_test::counters().forgotten;
        h[i].destruct_();
        CHECK(vrk_test::counters().forgotten == before + report);
        reports += report;
    }
    // A text just appended to slot i shows, or its loss is recorded.
    void shows(int i, const std::string& marker) const {
        if (block(h[i]) == nullptr)
            return; // no block: the fallback text says what memory ran out
        const std::string s = short_form(*h[i]);
        CHECK(s.find(marker) != std::string::npos ||
              (s.find("(code:") != std::string::npos && alloc.failures() > failures));
    }

    void round_trip(const exception& e, bool suppress_stack) {
        const long before = alloc.failures();
        const std::string form = short_form(e), messages = long_messages(e);
        vrk::osstream os(healthy);
        e.serialize(os, suppress_stack);
        CHECK(e.data() == nullptr || e.data()->done());
        if (os.bad()) {
            // A text the failing scratch could not hold fails the stream:
            // the bytes are incomplete, and the caller can tell.
            CHECK(alloc.failures() > before);
            return;
        }
        const vrk::string bytes = os.str();
        vrk::isstream is(bytes.data(), bytes.size(), healthy);
        try {
            auto back = exception::deserialize(is, alloc);
            CHECK(aligned(back.get()));
            // Without a block the bytes say only that memory ran out: read
            // back, a fixed text under the same number, line and file name.
            if (alloc.failures() == before && e.data() != nullptr) {
                CHECK(short_form(*back) == form);
                CHECK(long_messages(*back) == messages);
            } else if (alloc.failures() == before) {
                CHECK(!std::strcmp(back->what(), "Bad allocation in exception object (imported)") &&
                      back->error_no() == e.error_no() && back->line() == e.line() &&
                      !std::strcmp(back->file().get(), e.file().get()));
            }
            back->mark_processed();
        } catch (const std::bad_alloc&) {
            CHECK(alloc.failures() > before);
        }
    }

    void step(input& in) {
        const int i = static_cast<int>(in.byte() % SLOTS), j = static_cast<int>(in.byte() % SLOTS);
        const unsigned op = in.byte() % 16, how = in.byte();
        holder& x = h[i];
        if (op == 0) { // create: with or without a stack, with a code's text
            drop(i);
            const vrk::error_code& code = CODES[how % 4];
            if (how & 4)
                x.emplace("sys/x/fuzz.cpp", static_cast<int>(how), code);
            else
                x.emplace("sys/x/fuzz.cpp", static_cast<int>(how), code,
                          how & 8 ? FRAMES : exception::CALLER_SUPPRESS_STACK_TRACE);
            CHECK(aligned(x.get()));
            return;
        }
        if (op == 1) { // the allocator fails at a chosen request, or from it on,
                       // and hands out addresses off the 16-byte grid or not
            alloc.reset_requests();
            alloc.misalign(how & 4);
            if (how & 1)
                alloc.fail_at(in.byte() % 8);
            else // -1: never
                alloc.fail_from(how & 2 ? static_cast<long>(in.byte() % 8) : -1L);
            return;
        }
        if (x.empty())
            return;
        exception& e = *x;
        switch (op) {
        case 2: { // a message, its text sometimes naming arguments, with or without a file
            const std::string marker = "<m" + std::to_string(texts++) + ">";
            const std::string text =
                how & 1 ? marker + " $P" + std::to_string(how / 2 % 16) + "$" : marker;
            e.append_message(how & 8 ? nullptr : "sys/x/more.cpp", static_cast<int>(how),
                             100 + (how & 7), text.c_str());
            shows(i, marker);
            break;
        }
        case 3: { // a typed argument, under a name not used before on this message
            std::string& name = NAMES[texts];
            name = "P" + std::to_string(texts);
            const std::string marker = "<t" + std::to_string(texts++) + ">";
            switch (how % 6) {
            case 0:
            case 1:
                if (how % 6)
                    e << vrk::msgrpl_text(name.c_str(), marker.c_str());
                else
                    e << vrk::msgarg_text(name.c_str(), marker.c_str());
                shows(i, marker);
                break;
            case 2:
                e << vrk::msgarg_int(name.c_str(), -(static_cast<int>(in.byte()) << 20));
                break;
            case 3:
                e << vrk::msgarg_uint64(name.c_str(), ~0UL >> (in.byte() % 64), how & 8);
                break;
            case 4:
                e << vrk::msgarg_double(name.c_str(),
                                        (static_cast<double>(in.byte()) - 128.5) * 1e-3);
                break;
            default: // an exception, this one included
                if (!h[j].empty())
                    e << vrk::msgarg_exc(name.c_str(), *h[j]);
            }
            break;
        }
        case 4: // an exception appended: refused for itself, its own block,
            // a block already linked and a loop
            if (!h[j].empty()) {
                const auto *to = block(x), *from = block(h[j]);
                const bool was = linked(from), was_registered = registered(&e);
                bool refused = &e == h[j].get() || to == nullptr || from == nullptr || to == from;
                for (auto* b = from; b != nullptr && !refused; b = b->next())
                    refused = b == to;
                e << *h[j];
                CHECK(linked(from) == (was || !refused));
                // Appending ends the appended one's registration, but not
                // that of an exception appended to itself.
                CHECK(&e == h[j].get() ? registered(&e) == was_registered
                                       : !registered(h[j].get()));
                for (const holder& y : h)
                    linked(block(y)); // every chain still ends
            }
            break;
        case 5: { // a copy, taking the registration over, or a sharing copy
                  // (into its own holder too), which takes none
            if (i != j)
                drop(j);
            const bool was = registered(&e);
            if (how & 1)
                e.copy(h[j]);
            else if (i != j)
                h[j].emplace(e);
            CHECK(block(h[j]) == block(x));
            if (i != j)
                CHECK(registered(h[j].get()) == (was && !(how & 1)) &&
                      registered(&e) == (was && how & 1));
            else
                CHECK(!registered(&e) || !(how & 1));
            break;
        }
        case 6: // assignment: the old block counts as seen; to itself it
            // changes nothing, the registration included
            if (!h[j].empty()) {
                const bool was = registered(&e);
                *h[j] = e;
                CHECK(block(h[j]) == block(x) && (i != j || registered(&e) == was));
            }
            break;
        case 7: // the long form and the short forms, on a healthy or the
                // failing allocator: a prefix, whole when nothing failed
        case 8: {
            const std::string full = op == 7 ? long_form(e) : short_form(e, how & 2);
            const bool done = block(x) != nullptr && block(x)->done();
            CHECK(e.what() != nullptr && (block(x) == nullptr || block(x)->done() == done));
            const long before = alloc.failures();
            std::string got;
            if (op == 7) {
                vrk::osstream os(how & 1 ? healthy : alloc);
                os << e;
                got = os.c_str();
                CHECK(os.bad() == (got.size() < full.size()));
            } else {
                const vrk::string s = e.what(how & 1 ? healthy : alloc, how & 2);
                got.assign(s.data(), s.size());
            }
            CHECK(full.compare(0, got.size(), got) == 0 &&
                  (got == full || alloc.failures() > before));
            CHECK(block(x) == nullptr || block(x)->done());
            break;
        }
        case 9: { // iterate the messages and walk the chain; each message also
                  // expanded into `how % 64` bytes: the stream's text cut there,
                  // terminated when room is left, nothing written past them
            int nodes = 0;
            for (const vrk::exception_node& n : e) {
                nodes += n.message() != nullptr;
                vrk::osstream os(healthy);
                n.expand(os);
                const vrk::string full = os.str();
                char buf[65];
                std::memset(buf, '\x7f', sizeof buf);
                const size_t size = how % 64, len = n.expand(buf, size);
                CHECK(len == std::min(size, full.size()) &&
                      std::memcmp(buf, full.data(), len) == 0 &&
                      (len == size || buf[len] == '\0') && buf[size] == '\x7f');
            }
            size_t n = 0;
            for (exception c = e.get_next(); c.data() != nullptr; c = c.get_next())
                CHECK(++n < MAX_CHAIN);
            CHECK(block(x) == nullptr || (nodes > 0 && block(x)->done()));
            break;
        }
        case 10:
            round_trip(e, how & 1);
            break;
        case 11: // register, or unregister
            if (how & 1)
                e.register_on_thread();
            else
                e.unregister_on_thread();
            CHECK(registered(&e) == ((how & 1) != 0));
            break;
        case 12: // thrown and caught, looked at or not
            try {
                e.do_throw();
            } catch (const exception& caught) {
                CHECK((caught == e || block(x) == nullptr) && vrk_test::thread_head() == &caught);
                if (how & 1)
                    caught.mark_processed();
            }
            CHECK(!registered(&e)); // the thrown copy took it, and is gone
            break;
        case 13:
            drop(i);
            break;
        default: // looked at, or handed to the host
            if (how & 1) {
                e.dump();
                ++dumps;
            }
            e.mark_processed();
        }
    }

    // The thread's list holds only held exceptions, each once, and ends.
    void check_registered() const {
        int n = 0;
        for (const exception* r = exception::get_first_registered(); r != nullptr;
             r = r->get_next_registered())
            CHECK(++n <= SLOTS && std::any_of(h, h + SLOTS, [&](auto& y) { return y.get() == r; }));
    }
    static bool registered(const exception* e) {
        for (const exception* r = exception::get_first_registered(); r != nullptr;
             r = r->get_next_registered())
            if (r == e)
                return true;
        return false;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vrk_test::reset_host();
    vrk_test::set_default_allocator(&alloc);
    alloc.fail_never();
    alloc.misalign(false);
    {
        harness s;
        input in{data, data + size};
        for (int steps = 0; in.p != in.end && steps < 200; ++steps) {
            s.step(in);
            s.check_registered();
            const vrk_test::host_counters& host = vrk_test::counters();
            CHECK(host.forgotten == s.reports && host.caught == s.dumps && host.unhandled == 0);
        }
        for (int i = 0; i < SLOTS; ++i)
            s.drop(i);
    }
    CHECK(vrk_test::thread_head() == nullptr && exception::get_first_registered() == nullptr);
    CHECK(alloc.balance() == 0 && healthy.balance() == 0 && alloc.bad_releases() == 0 &&
          healthy.bad_releases() == 0);
    vrk_test::set_default_allocator(nullptr);
    return 0;
}
