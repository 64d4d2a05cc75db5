// Registration on the thread's list: order and host calls, the not-found
// report, the host's head as read, and exceptions handed to another thread.
// (Moves through copies, assignment and appends: the exception fuzz target.)
#include <exception>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "support/test_host.hpp"
#include "vrk/ext/buffer_stream.hpp"

namespace {

using vrk::exception;
using vrk_test::host_event;
using vrk_test::thread_events;

const vrk::error_code CODE{7, "seven", nullptr};

class Registration : public vrk_test::host_fixture {
protected:
    // Host calls after the last clear, without the head queries.
    std::vector<host_event> calls() {
        std::vector<host_event> out = std::exchange(thread_events(), {});
        std::erase_if(out, [](const host_event& ev) { return ev.what == host_event::GET_HEAD; });
        return out;
    }
    // The thread's list, newest first; clears the host calls.
    std::vector<const exception*> registered() {
        std::vector<const exception*> out;
        for (const exception* e = exception::get_first_registered(); e;
             e = e->get_next_registered())
            out.push_back(e);
        thread_events().clear();
        return out;
    }
};
using list = std::vector<const exception*>;

TEST_F(Registration, ListIsNewestFirstAndUnlinksFromAnywhere) {
    exception e1("f", 1, CODE), e2("f", 2, CODE), e3("f", 3, CODE);
    for (exception* e : {&e1, &e2, &e3}) {
        e->mark_processed();
        e->register_on_thread();
        EXPECT_EQ(calls(), (std::vector<host_event>{{host_event::REGISTER, e},
                                                    {host_event::ADD_RECENT, e}}));
    }
    EXPECT_EQ(registered(), (list{&e3, &e2, &e1}));
    e3.register_on_thread(); // already registered: not even the head query
    EXPECT_TRUE(thread_events().empty());

    e2.unregister_on_thread(); // middle: one head query, no other host call
    EXPECT_EQ(thread_events(), (std::vector<host_event>{{host_event::GET_HEAD, nullptr}}));
    EXPECT_EQ(registered(), (list{&e3, &e1}));
    EXPECT_EQ(e2.get_next_registered(), nullptr);

    e3.unregister_on_thread(); // head: the next one becomes head
    EXPECT_EQ(calls(), (std::vector<host_event>{{host_event::REGISTER, &e1}}));
    e1.unregister_on_thread(); // the only one: the list empties
    EXPECT_EQ(calls(), (std::vector<host_event>{{host_event::UNREGISTER, &e1}}));
    e1.unregister_on_thread(); // not registered: no host call at all
    EXPECT_TRUE(thread_events().empty());
}

TEST_F(Registration, NotFoundIsReportedAsForgottenErrorThenUnhandled) {
    exception a("f", 1, CODE);
    a.mark_processed();
    // Registered on another thread: not on this thread's list.
    std::thread([&] { a.register_on_thread(); }).join();
    a.unregister_on_thread();
    EXPECT_EQ(vrk_test::forgotten_errors(),
              (std::vector<int>{vrk::ERR_VRK_NOT_REGISTERED.number()}));
    EXPECT_EQ(vrk_test::counters().unhandled, 1);
    a.register_on_thread(); // a ends unregistered: it registers here again
    EXPECT_EQ(registered(), list{&a}) << "and the error left the list again";
    a.unregister_on_thread();
}

// The host's head is read as it is: 1 means an empty list, and registering
// the head again would make a cycle.
TEST_F(Registration, HostsHeadIsTakenAsTheHostKeepsIt) {
    vrk_test::settings().fake_head = true;
    vrk_test::settings().fake_head_value = reinterpret_cast<const exception*>(uintptr_t{1});
    EXPECT_EQ(exception::get_first_registered(), nullptr);
    EXPECT_DEATH(
        {
            exception a("f", 1, CODE);
            vrk_test::settings().fake_head_value = &a;
            a.register_on_thread();
        },
        "sys/src/vrk/base/impl/exception:[0-9]+: Infinite recursion on exc");
}

// Throws, and ends the registration in the handler before the exception
// leaves this thread: the way to hand an exception to another thread.
[[noreturn]] void throw_to_another_thread() {
    try {
        VRK_THROW(vrk::runtime_error, CODE);
    } catch (const exception& e) {
        e.unregister_on_thread();
        throw;
    }
}

void catch_and_print(std::future<void> f) {
    try {
        f.get();
    } catch (const exception& e) {
        vrk::buffer_stream<2048> out;
        out.getStream() << e;
    }
}

// The standard library keeps the thrown object and releases it on whichever
// thread drops it last. Unregistered on the thread that caught it, it is
// printed and released on another thread without a report, and no thread's
// list keeps it. (A copy takes the registration over: the exception fuzz
// target.)
TEST_F(Registration, ExceptionsLeaveTheirThreadUnregistered) {
    catch_and_print(std::async(std::launch::async, throw_to_another_thread));
    // From a thread that lives on while the exception is released here.
    std::promise<void> promised, released;
    std::thread worker([&] {
        try {
            throw_to_another_thread();
        } catch (...) {
            promised.set_exception(std::current_exception());
        }
        released.get_future().wait();
        EXPECT_EQ(exception::get_first_registered(), nullptr) << "the worker's list";
    });
    catch_and_print(promised.get_future());
    released.set_value();
    worker.join();
    EXPECT_EQ(vrk_test::counters().unhandled, 0);
    EXPECT_TRUE(vrk_test::forgotten_errors().empty());
}

} // namespace
