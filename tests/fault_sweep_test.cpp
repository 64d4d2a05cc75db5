// Every allocation of the exception facility made to fail, one request at a
// time and from one request on: the exception must still report what it can
// (the right failure code and note, the fallback text), texts degrade into
// prefixes, and every block goes back to its allocator.
//
// Allocation sites reached: the data block and the stack buffer (creation),
// an appended node (append_message), a message parameter (every typed
// argument, an exception argument included), the string storage (string and
// string stream growth, what(alloc, ...), printing, the serializer's scratch
// text), and the reader's object, blocks, nodes, file names and stack texts
// (deserialize).
#include <new>
#include <string>
#include <vector>

#include "support/fault_sweep.hpp"
#include "support/test_host.hpp"
#include "vrk/base/impl/bad_alloc_text.hpp"
#include "vrk/ext/message_args.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::exception;
using vrk::exception_node;
using vrk_test::fault_point;
using vrk_test::fault_sweep;

// The test host records three fake frames from this address.
const void* const FRAMES = reinterpret_cast<const void*>(0x1000);
const char* const FILE_A = "sys/x/alpha.cpp";
const vrk::error_code ALPHA{7, "alpha failed", nullptr};

vrk::error_code code_for(int n) { return vrk::error_code{n, "member", nullptr}; }

// What a correctly degraded exception shows: per exception of the chain, per
// message its error number, text and failure code.
struct node_model {
    int err;
    std::string text;
    int code;
};
using exception_model = std::vector<node_model>;

// The short form (no throw locations) the model stands for.
std::string short_form_of(const std::vector<exception_model>& chain) {
    std::string s;
    for (const exception_model& e : chain)
        for (const node_model& n : e) {
            s += "exception " + std::to_string(n.err) + ": " + n.text;
            if (n.code >= 1 && n.code <= 3)
                s += std::string("; \"") + vrk::impl::EXP_BAD_ALLOC_MSG[n.code] +
                     "\" (code:" + std::to_string(n.code) + ")";
            s += '\n';
        }
    return s;
}

std::string fallback_of(int err, const char* file, int line) {
    return std::string(vrk::impl::getBadAllocMsg(err, file, line)) + "\n";
}

// The short form as the exception writes it, on an allocator of its own.
std::string short_form(const exception& e) {
    vrk_test::test_allocator out;
    vrk::string s = e.what(out, true);
    return std::string(s.c_str(), s.size());
}

std::string long_form(const exception& e) {
    vrk_test::test_allocator out;
    vrk::osstream os(out);
    e.print(os);
    vrk::string s = os.str();
    return std::string(s.c_str(), s.size());
}

const exception_node& first_node(const exception& e) {
    return const_cast<const vrk::exception_data*>(e.data())->node_;
}

bool is_prefix(const std::string& part, const std::string& whole) {
    return whole.compare(0, part.size(), part) == 0 && part.size() <= whole.size();
}

class FaultSweep : public vrk_test::host_fixture {};

TEST_F(FaultSweep, CreatingAndThrowingDegradesIntoCodesAndTheFallbackText) {
    fault_sweep("create_with_message", [](const fault_point& fp) {
        vrk_test::counters().forgotten = 0;
        {
            // Requests 0 and 1: block and stack buffer.
            exception e(FILE_A, 42, ALPHA, FRAMES);
            EXPECT_EQ(e.error_no(), 7);
            EXPECT_EQ(e.line(), 42);
            EXPECT_STREQ(e.file().get(), FILE_A);
            if (fp.fails(0)) {
                EXPECT_EQ(e.data(), nullptr);
                EXPECT_EQ(std::string(e.what()), fallback_of(7, FILE_A, 42).substr(0, 164));
                EXPECT_TRUE(e.begin() == e.end());
                EXPECT_EQ(e.stack_trace(nullptr), 0);
                EXPECT_EQ(long_form(e), fallback_of(7, FILE_A, 42));
                EXPECT_EQ(short_form(e), fallback_of(7, FILE_A, 42));
            } else {
                ASSERT_NE(e.data(), nullptr);
                const int code = fp.fails(1) ? exception_node::STACK_FAILED : 0;
                EXPECT_EQ(first_node(e).bad_alloc(), code);
                EXPECT_STREQ(e.what(), "alpha failed");
                EXPECT_EQ(short_form(e), short_form_of({{{7, "alpha failed", code}}}));
                EXPECT_EQ(e.stack_trace(nullptr), code != 0 ? 0 : 3);
                const std::string text = long_form(e);
                EXPECT_EQ(text.find("NO exception throw location recorded. Allocation of stack "
                                    "data failed.\n") != std::string::npos,
                          code != 0)
                    << text;
            }
            // Throwing allocates nothing: the caught copy is the same exception.
            try {
                e.register_on_thread();
                e.do_throw();
            } catch (const exception& caught) {
                EXPECT_EQ(caught.error_no(), 7);
                EXPECT_EQ(caught.line(), 42);
                EXPECT_EQ(caught == e, e.data() != nullptr);
                caught.mark_processed();
            }
        }
        EXPECT_EQ(vrk_test::counters().forgotten, 0) << "an inspected exception was reported";
        // Dropped unseen, an exception is reported once, and only when it
        // has a block to report.
        const long next = fp.fails(0) ? 1 : 2;
        { exception dropped(FILE_A, 43, code_for(8), FRAMES); }
        EXPECT_EQ(vrk_test::counters().forgotten, fp.fails(next) ? 0 : 1);
    });
}

TEST_F(FaultSweep, AppendingMessagesStopsAtTheFirstLostMessage) {
    fault_sweep("append_messages", [](const fault_point& fp) {
        exception e(FILE_A, 42, ALPHA, FRAMES);
        for (int k = 1; k <= 3; ++k)
            e.append_message("sys/x/beta.cpp", k, 100 + k,
                             (std::string(30 * k, 'm') + std::to_string(k)).c_str());
        // The model: a lost stack buffer or message closes the list for good.
        long req = 0;
        if (fp.fails(req++)) {
            EXPECT_EQ(e.data(), nullptr);
            EXPECT_EQ(short_form(e), fallback_of(7, FILE_A, 42));
            return;
        }
        exception_model m{{7, "alpha failed", fp.fails(req++) ? 2 : 0}};
        bool closed = m.back().code != 0;
        for (int k = 1; k <= 3 && !closed; ++k) {
            if (fp.fails(req++)) {
                m.back().code = exception_node::MESSAGE_FAILED;
                closed = true;
            } else {
                m.push_back({100 + k, std::string(30 * k, 'm') + std::to_string(k), 0});
            }
        }
        // A closed list takes no further message, and asks for no memory.
        const long before = fp.alloc.requests();
        e.append_message("sys/x/beta.cpp", 9, 109, "late");
        if (closed)
            EXPECT_EQ(fp.alloc.requests(), before);
        else if (fp.fails(req++))
            m.back().code = exception_node::MESSAGE_FAILED;
        else
            m.push_back({109, "late", 0});
        EXPECT_EQ(short_form(e), short_form_of({m}));
    });
}

TEST_F(FaultSweep, AChainKeepsEveryMemberThatHasABlockInOrder) {
    fault_sweep("append_exceptions", [](const fault_point& fp) {
        // Each exception asks for its block, then, when it got one, for its
        // stack buffer.
        exception head(FILE_A, 42, ALPHA, FRAMES);
        std::vector<exception*> members;
        for (int i = 1; i <= 3; ++i)
            members.push_back(new exception("sys/x/m.cpp", i, code_for(10 + i), FRAMES));
        for (exception* m : members)
            head << *m;
        // Members go first: their blocks live on through the links.
        for (exception* m : members)
            delete m;

        long req = 0;
        if (fp.fails(req++)) {
            EXPECT_EQ(short_form(head), fallback_of(7, FILE_A, 42));
            return;
        }
        std::vector<exception_model> chain{{{7, "alpha failed", fp.fails(req++) ? 2 : 0}}};
        std::vector<int> order{7};
        for (int i = 1; i <= 3; ++i)
            if (!fp.fails(req++)) {
                chain.push_back({{10 + i, "member", fp.fails(req++) ? 2 : 0}});
                order.push_back(10 + i);
            }
        std::vector<int> walked;
        for (exception x = head; x.data() != nullptr; x = x.get_next())
            walked.push_back(x.error_no());
        EXPECT_EQ(walked, order);
        EXPECT_EQ(short_form(head), short_form_of(chain));
    });
}

TEST_F(FaultSweep, AThrowSiteKeepsClassFileLineAndRegistrationWithoutMemory) {
    fault_sweep("throw_site", [](const fault_point& fp) {
        try {
            VRK_THROW_AT("sys/x/site.cpp", 77, vrk::runtime_error, ALPHA)
                << vrk::msgarg_int("I", 3) << vrk::error_message("sys/x/site.cpp", 78, 8, "more");
        } catch (const vrk::runtime_error& e) {
            EXPECT_EQ(vrk_test::thread_head(), &e) << "the thrown copy carries the registration";
            EXPECT_EQ(e.error_no(), 7);
            EXPECT_EQ(e.line(), 77);
            EXPECT_STREQ(e.file().get(), "sys/x/site.cpp");
            EXPECT_EQ(e.data() == nullptr, fp.fails(0));
            if (e.data() == nullptr)
                EXPECT_EQ(short_form(e), fallback_of(7, "sys/x/site.cpp", 77));
            else
                EXPECT_EQ(short_form(e).rfind("exception 7: alpha failed", 0), 0u);
        }
        EXPECT_EQ(vrk_test::thread_head(), nullptr) << "still registered after the handler";
        EXPECT_EQ(vrk_test::counters().unhandled, 0);
    });
}

// A source exception with a long chain, built on a healthy allocator, so
// that only the text's storage fails.
class FaultSweepText : public FaultSweep {
protected:
    void SetUp() override {
        FaultSweep::SetUp();
        source_ = new exception(FILE_A, 42, ALPHA, FRAMES);
        for (int k = 1; k <= 3; ++k)
            source_->append_message("sys/x/beta.cpp", k, 100 + k,
                                    std::string(200, 'a' + k).c_str());
        for (int i = 1; i <= 2; ++i) {
            exception m("sys/x/m.cpp", i, code_for(10 + i), FRAMES);
            m.append_message("sys/x/m.cpp", 50 + i, 20 + i, std::string(150, 'k').c_str());
            *source_ << m;
        }
    }
    void TearDown() override {
        delete source_;
        FaultSweep::TearDown();
    }
    exception* source_ = nullptr;
};

TEST_F(FaultSweepText, PrintingIntoAFailingStreamWritesAPrefixAndSetsBadbit) {
    const std::string full = long_form(*source_);
    ASSERT_GT(full.size(), 1000u);
    fault_sweep("print_long_form", [&](const fault_point& fp) {
        vrk::osstream os(fp.alloc);
        os << *source_;
        const std::string got(os.c_str());
        EXPECT_TRUE(is_prefix(got, full)) << got;
        EXPECT_EQ(got.size() < full.size(), fp.any_failed());
        EXPECT_EQ(os.bad(), fp.any_failed());
        EXPECT_TRUE(source_->data()->done()) << "a printed exception counts as seen";
    });
    EXPECT_EQ(vrk_test::counters().caught, 0) << "a standard allocation error is not dumped";
}

TEST_F(FaultSweepText, WhatOnAFailingAllocatorReturnsAPrefix) {
    vrk_test::test_allocator healthy;
    std::string full;
    {
        vrk::string s = source_->what(healthy, false);
        full.assign(s.c_str(), s.size());
    }
    fault_sweep("what_short_form", [&](const fault_point& fp) {
        vrk::string s = source_->what(fp.alloc, false);
        const std::string got(s.c_str(), s.size());
        EXPECT_TRUE(is_prefix(got, full)) << got;
        EXPECT_EQ(got.size() < full.size(), fp.any_failed());
        EXPECT_TRUE(source_->data()->done());
    });
}

TEST_F(FaultSweep, GrowingStringsKeepTheirTextWhenGrowthFails) {
    fault_sweep("string_growth", [](const fault_point& fp) {
        vrk::string s(fp.alloc);
        std::string model;
        for (int i = 0; i < 30; ++i) {
            const std::string piece = std::to_string(i) + std::string(17, 'x');
            try {
                s.append(piece.c_str());
                model += piece;
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(fp.any_failed());
            }
            ASSERT_EQ(std::string(s.c_str(), s.size()), model);
        }
        // A shared block unshared by a change: on failure neither copy changes.
        vrk::string copy(s);
        try {
            copy.push_back('!');
            EXPECT_EQ(std::string(copy.c_str()), model + "!");
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(std::string(copy.c_str()), model);
        }
        EXPECT_EQ(std::string(s.c_str()), model);
    });
}

TEST_F(FaultSweep, AStringStreamThatCannotGrowKeepsAPrefixAndBadbit) {
    std::string full;
    auto write = [](vrk::osstream& os) {
        for (int i = 0; i < 200; ++i)
            os << "line " << i << ": " << -1234567L * i << ' ' << std::string(12, 'q').c_str()
               << '\n';
    };
    {
        vrk_test::test_allocator healthy;
        vrk::osstream os(healthy);
        write(os);
        full = os.c_str();
    }
    fault_sweep("string_stream_growth", [&](const fault_point& fp) {
        vrk::osstream os(fp.alloc);
        write(os);
        const std::string got(os.c_str());
        EXPECT_TRUE(is_prefix(got, full));
        EXPECT_EQ(got.size() < full.size(), fp.any_failed());
        EXPECT_EQ(os.bad(), fp.any_failed());
    });
}

// Every kind of argument, a second message and an argument on it: the first
// lost parameter or message closes the exception's list for good, and the
// text is that of the operations before it plus the note of the loss.
class FaultSweepArgs : public FaultSweep {
protected:
    struct op {
        bool message; // an appended message, else a parameter
        void (*apply)(exception&, const exception& nested);
    };
    static const std::vector<op>& ops() {
        using namespace vrk;
        static const std::vector<op> all{
            {false, [](exception& e, const exception&) { e << msgarg_bool("B", true); }},
            {false, [](exception& e, const exception&) { e << msgarg_char("C", 'x'); }},
            {false, [](exception& e, const exception&) { e << msgarg_uchar("UC", 200); }},
            {false, [](exception& e, const exception&) { e << msgarg_int("I", -5); }},
            {false, [](exception& e, const exception&) { e << msgarg_uint("U", 5u, true); }},
            {false, [](exception& e, const exception&) { e << msgarg_int64("L", -(1L << 40)); }},
            {false, [](exception& e, const exception&) { e << msgarg_uint64("UL", ~0UL); }},
            {false, [](exception& e, const exception&) { e << msgarg_float("F", 0.5F); }},
            {false, [](exception& e, const exception&) { e << msgarg_double("D", 1e300); }},
            {false, [](exception& e, const exception&) { e << msgarg_text("T", "some text"); }},
            {false, [](exception& e, const exception&) { e << msgarg_text("H", "hex", true); }},
            {false, [](exception& e, const exception&) { e << msgarg_ptr("P", FRAMES); }},
            {false, [](exception& e, const exception& n) { e << msgarg_exc("X", n); }},
            {false, [](exception& e, const exception&) { e << msgrpl_int("I", 9); }},
            {true,
             [](exception& e, const exception&) {
                 e.append_message("sys/x/beta.cpp", 2, 102, "then $N$ and $X2$");
             }},
            {false, [](exception& e, const exception&) { e << msgarg_int("N", 3); }},
            {false, [](exception& e, const exception& n) { e << msgrpl_exc("X2", n); }},
        };
        return all;
    }
    static constexpr const char* TEXT =
        "B=$B$ C=$C$ UC=$UC$ I=$I$ U=$U$ L=$L$ UL=$UL$ F=$F$ D=$D$ T=$T$ H=$H$ P=$P$ X=$X$";
};

TEST_F(FaultSweepArgs, ALostParameterOrMessageClosesTheListWithItsNote) {
    const vrk::error_code code{7, TEXT, nullptr};
    // The nested exception lives on the fixture's allocator: only the outer
    // exception's memory fails.
    exception nested("sys/x/n.cpp", 5, code_for(55), FRAMES);
    nested.append_message("sys/x/n.cpp", 6, 56, "nested second");
    fault_sweep("arguments", [&](const fault_point& fp) {
        exception e(FILE_A, 42, code, FRAMES);
        for (const op& o : ops())
            o.apply(e, nested);

        // The model: request 0 the block, 1 the stack buffer, then one per
        // operation until the first that fails.
        vrk_test::test_allocator healthy;
        vrk_test::set_default_allocator(&healthy);
        std::string expected;
        {
            exception ref(FILE_A, 42, code, FRAMES);
            int lost = 0;
            long req = 1;
            if (fp.fails(0)) {
                expected = fallback_of(7, FILE_A, 42);
            } else {
                if (fp.fails(req++))
                    lost = exception_node::STACK_FAILED;
                for (size_t i = 0; i < ops().size() && lost == 0; ++i) {
                    if (fp.fails(req++))
                        lost = ops()[i].message ? exception_node::MESSAGE_FAILED
                                                : exception_node::PARAM_FAILED;
                    else
                        ops()[i].apply(ref, nested);
                }
                expected = short_form(ref);
                if (lost != 0)
                    expected.insert(expected.size() - 1,
                                    std::string("; \"") + vrk::impl::EXP_BAD_ALLOC_MSG[lost] +
                                        "\" (code:" + std::to_string(lost) + ")");
            }
        }
        vrk_test::set_default_allocator(&fp.alloc);
        EXPECT_EQ(short_form(e), expected);
    });
    nested.mark_processed();
}

// Serialization: the writer's scratch text comes from the default allocator,
// the reader's blocks too. Only those fail here; the byte streams and the
// reference texts live on allocators of their own.
std::string bytes_of(const exception& e, vrk::allocator& out) {
    vrk::osstream os(out);
    e.serialize(os, false);
    vrk::string s = os.str();
    return std::string(s.data(), s.size());
}

TEST_F(FaultSweepText, SerializingWithAFailingScratchLosesNoTextUnseen) {
    vrk_test::test_allocator out;
    const std::string full = bytes_of(*source_, out);
    fault_sweep("serialize", [&](const fault_point& fp) {
        vrk::osstream os(out);
        source_->serialize(os, false);
        // A text the scratch could not hold fails the stream; a good stream
        // holds every byte.
        EXPECT_EQ(os.bad(), fp.any_failed());
        if (os.good()) {
            vrk::string b = os.str();
            EXPECT_EQ(std::string(b.data(), b.size()), full);
        }
        EXPECT_TRUE(source_->data()->done());
    });
}

// Reads `e` back on an allocator that fails, after one healthy read for the
// reference text: the object or the allocator's error, never a leak.
void sweep_deserialize(const char* name, const exception& e) {
    vrk_test::test_allocator out;
    const std::string full = bytes_of(e, out);
    std::string reference;
    {
        vrk::isstream is(full.data(), full.size(), out);
        auto p = exception::deserialize(is, out);
        reference = long_form(*p);
    }
    fault_sweep(name, [&](const fault_point& fp) {
        vrk::isstream is(full.data(), full.size(), out);
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

TEST_F(FaultSweepText, DeserializingOnAFailingAllocatorRaisesItsErrorAndKeepsNothing) {
    sweep_deserialize("deserialize", *source_);
    // A file name longer than the reader takes at once: its buffer grows
    // while the bytes arrive.
    const std::string long_name(70000, 'n');
    exception named(long_name.c_str(), 3, ALPHA, FRAMES);
    sweep_deserialize("deserialize_long_text", named);
    named.mark_processed();
}

} // namespace
