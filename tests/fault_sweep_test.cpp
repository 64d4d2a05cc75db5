// Every allocation of the exception facility made to fail, one request at a
// time and from one request on: the exception must still report what it can
// (the right failure code and note, the fallback text) and every block goes
// back to its allocator. Printing, what() and chains on a failing allocator
// are checked by the exception fuzz target and its corpus, string growth on a
// failing allocator by the string fuzz target.
//
// Allocation sites reached: the data block and the stack buffer (creation),
// an appended node (append_message), a message parameter (every typed
// argument, an exception argument included), the serializer's scratch
// text, and the reader's object, blocks,
// nodes, file names and stack texts (deserialize).
#include <new>
#include <string>

#include "support/fault_sweep.hpp"
#include "support/forms.hpp"
#include "support/test_host.hpp"
#include "vrk/base/impl/bad_alloc_text.hpp"
#include "vrk/ext/message_args.hpp"

namespace {

using vrk::exception;
using vrk::exception_node;
using vrk_test::fault_point;
using vrk_test::fault_sweep;
using vrk_test::long_form;
using vrk_test::short_form;

// The test host records three fake frames from this address.
const void* const FRAMES = reinterpret_cast<const void*>(0x1000);
const char* const FILE_A = "sys/x/alpha.cpp";
const vrk::error_code ALPHA{7, "alpha failed", nullptr};

vrk::error_code code_for(int n) { return vrk::error_code{n, "member", nullptr}; }

// The note a message with failure code `code` (1 to 3) ends with.
std::string note(int code) {
    return std::string("; \"") + vrk::impl::EXP_BAD_ALLOC_MSG[code] +
           "\" (code:" + std::to_string(code) + ")";
}

// The short-form line of a message, with the note of failure code `code`.
std::string line(int err, const char* text, int code) {
    return "exception " + std::to_string(err) + ": " + text + (code != 0 ? note(code) : "") + "\n";
}

std::string fallback_of(int err, const char* file, int line) {
    return std::string(vrk::impl::getBadAllocMsg(err, file, line)) + "\n";
}

using FaultSweep = vrk_test::host_fixture;

// Requests 0 and 1: the block and the stack buffer. The throw allocates
// nothing: the caught copy is the exception made, and carries the
// registration.
TEST_F(FaultSweep, CreatingAndThrowingDegradesIntoCodesAndTheFallbackText) {
    fault_sweep("create_and_throw", [](const fault_point& fp) {
        vrk_test::counters().forgotten = 0;
        try {
            VRK_THROW_AT(FILE_A, 42, vrk::runtime_error, ALPHA);
        } catch (const vrk::runtime_error& e) {
            EXPECT_EQ(vrk_test::thread_head(), &e);
            EXPECT_EQ(e.error_no(), 7);
            EXPECT_EQ(e.line(), 42);
            EXPECT_STREQ(e.file().get(), FILE_A);
            const int code = fp.fails(1) ? exception_node::STACK_FAILED : 0;
            if (fp.fails(0)) {
                EXPECT_EQ(e.data(), nullptr);
                EXPECT_TRUE(e.begin() == e.end());
                EXPECT_EQ(e.stack_trace(nullptr), 0);
                for (const std::string& form :
                     {std::string(e.what()) + "\n", long_form(e), short_form(e)})
                    EXPECT_EQ(form, fallback_of(7, FILE_A, 42));
            } else {
                EXPECT_EQ(short_form(e), line(7, "alpha failed", code));
                EXPECT_EQ(e.stack_trace(nullptr), code != 0 ? 0 : 3);
                EXPECT_EQ(long_form(e).find("NO exception throw location recorded. Allocation of "
                                            "stack data failed.\n") != std::string::npos,
                          code != 0);
            }
        }
        EXPECT_EQ(vrk_test::thread_head(), nullptr) << "still registered after the handler";
        EXPECT_EQ(vrk_test::counters().forgotten, 0) << "an inspected exception was reported";
        EXPECT_EQ(vrk_test::counters().unhandled, 0);
        // Dropped unseen, an exception is reported once, and only when it
        // has a block to report.
        const long next = fp.fails(0) ? 1 : 2;
        { exception dropped(FILE_A, 43, code_for(8), FRAMES); }
        EXPECT_EQ(vrk_test::counters().forgotten, fp.fails(next) ? 0 : 1);
    });
}

// A source exception with a long chain, built on the healthy default
// allocator, so that only the text's storage fails.
exception long_chain() {
    exception e(FILE_A, 42, ALPHA, FRAMES);
    for (int k = 1; k <= 3; ++k)
        e.append_message("sys/x/beta.cpp", k, 100 + k, std::string(200, 'a' + k).c_str());
    for (int i = 1; i <= 2; ++i) {
        exception m("sys/x/m.cpp", i, code_for(10 + i), FRAMES);
        m.append_message("sys/x/m.cpp", 50 + i, 20 + i, std::string(150, 'k').c_str());
        e << m;
    }
    return e;
}

// Arguments (each takes one parameter; an exception's is printed first), a
// second message and arguments on it: the first lost parameter or message
// closes the exception's list for good (later requests that would succeed add
// nothing), and the text is that of the operations before it plus the note
// of the loss.
TEST_F(FaultSweep, ALostParameterOrMessageClosesTheListWithItsNote) {
    using namespace vrk;
    using apply = void (*)(exception&, const exception& nested);
    const struct {
        bool message; // an appended message, else a parameter
        apply op;
    } ops[] = {
        {false, [](exception& e, const exception&) { e << msgarg_int("I", -5); }},
        {false, [](exception& e, const exception&) { e << msgarg_text("H", "hex", true); }},
        {false, [](exception& e, const exception& n) { e << msgarg_exc("X", n); }},
        {true,
         [](exception& e, const exception&) {
             e.append_message("sys/x/beta.cpp", 2, 102, "then $N$ and $X2$");
         }},
        {false, [](exception& e, const exception&) { e << msgarg_int("N", 3); }},
        {false, [](exception& e, const exception& n) { e << msgrpl_exc("X2", n); }},
    };
    const error_code code{7, "I=$I$ H=$H$ X=$X$", nullptr};
    // The nested exception lives on the fixture's allocator: only the outer
    // exception's memory fails.
    exception nested("sys/x/n.cpp", 5, code_for(55), FRAMES);
    nested.append_message("sys/x/n.cpp", 6, 56, "nested second");
    fault_sweep("arguments", [&](const fault_point& fp) {
        exception e(FILE_A, 42, code, FRAMES);
        for (const auto& o : ops)
            o.op(e, nested);
        if (fp.fails(0)) {
            EXPECT_STREQ(e.get_msgarg_by_name("I"), "") << "a blockless exception takes nothing";
        }

        // The model: request 0 the block, 1 the stack buffer, then one per
        // operation until the first that fails; built on a healthy allocator.
        vrk_test::set_default_allocator(nullptr);
        std::string expected = fallback_of(7, FILE_A, 42);
        if (!fp.fails(0)) {
            exception ref(FILE_A, 42, code, FRAMES);
            int lost = fp.fails(1) ? exception_node::STACK_FAILED : 0;
            long req = 2;
            for (const auto& o : ops) {
                if (lost != 0)
                    break;
                if (fp.fails(req++))
                    lost =
                        o.message ? exception_node::MESSAGE_FAILED : exception_node::PARAM_FAILED;
                else
                    o.op(ref, nested);
            }
            expected = short_form(ref);
            if (lost != 0)
                expected.insert(expected.size() - 1, note(lost));
        }
        vrk_test::set_default_allocator(&fp.alloc);
        EXPECT_EQ(short_form(e), expected);
    });
    nested.mark_processed();
}

// Serialization: the writer's scratch text comes from the default allocator,
// the reader's object and blocks from the one it is given; both fail here,
// the byte streams and the reference texts live on the heap. A text the
// scratch could not hold fails the stream, a good stream holds every byte;
// the reader gives the object or the allocator's error, never a leak.
void sweep_round_trip(const char* name, const exception& e) {
    vrk::heap_allocator heap;
    const auto bytes = [&] {
        vrk::osstream os(heap);
        e.serialize(os, false);
        return os.bad() ? std::string("(bad)") : vrk_test::text_of(os.str());
    };
    const std::string full = bytes();
    vrk::isstream healthy(full.data(), full.size(), heap);
    const std::string reference = long_form(*exception::deserialize(healthy, heap));
    fault_sweep(name, [&](const fault_point& fp) {
        const std::string written = bytes();
        EXPECT_EQ(written, fp.any_failed() ? "(bad)" : full);
        if (fp.any_failed())
            return;
        vrk::isstream is(full.data(), full.size(), heap);
        try {
            auto p = exception::deserialize(is, fp.alloc);
            EXPECT_FALSE(fp.any_failed()) << "a failed allocation was not passed on";
            EXPECT_EQ(long_form(*p), reference);
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(fp.any_failed());
        }
        EXPECT_EQ(vrk_test::counters().forgotten, 0) << "a half-read exception was reported";
    });
}

TEST_F(FaultSweep, SerializingAndReadingBackOnAFailingAllocatorLosesNothingUnseen) {
    const exception source = long_chain();
    sweep_round_trip("round_trip", source);
    // A file name longer than the reader takes at once: its buffer grows
    // while the bytes arrive.
    const std::string long_name(70000, 'n');
    exception named(long_name.c_str(), 3, ALPHA, FRAMES);
    sweep_round_trip("round_trip_long_text", named);
    named.mark_processed();
}

} // namespace
