// Every allocation of the exception facility made to fail, one request at a
// time and from one request on: the exception must still report what it can
// (the right failure code and note, the fallback text) and every block goes
// back to its allocator. Printing, what(), chains and the serializer's and
// reader's allocations on a failing allocator are checked by the exception
// fuzz target and its corpus, string growth by the string fuzz target.
//
// Allocation sites reached: the data block and the stack buffer (creation),
// an appended node (append_message) and a message parameter (every typed
// argument, an exception argument included).
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
using vrk_test::short_form;

// The test host records three fake frames from this address.
const void* const FRAMES = reinterpret_cast<const void*>(0x1000);
const char* const FILE_A = "sys/x/alpha.cpp";

// The note a message with failure code `code` (1 to 3) ends with.
std::string note(int code) {
    return std::string("; \"") + vrk::impl::EXP_BAD_ALLOC_MSG[code] +
           "\" (code:" + std::to_string(code) + ")";
}

std::string fallback_of(int err, const char* file, int line) {
    return std::string(vrk::impl::getBadAllocMsg(err, file, line)) + "\n";
}

using FaultSweep = vrk_test::host_fixture;

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
    exception nested("sys/x/n.cpp", 5, vrk::error_code{55, "member", nullptr}, FRAMES);
    nested.append_message("sys/x/n.cpp", 6, 56, "nested second");
    fault_sweep("arguments", [&](const fault_point& fp) {
        exception e(FILE_A, 42, code, FRAMES);
        for (const auto& o : ops)
            o.op(e, nested);
        if (fp.fails(0)) { // every form of a blockless exception is the fallback text
            EXPECT_STREQ(e.get_msgarg_by_name("I"), "") << "a blockless exception takes nothing";
            for (const std::string& form : {std::string(e.what()) + "\n", vrk_test::long_form(e)})
                EXPECT_EQ(form, fallback_of(7, FILE_A, 42));
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

} // namespace
