// Registration on the thread's list: order, moves through copies, throws,
// assignment and appends, the not-found report, and exceptions handed to
// another thread.
#include <exception>
#include <future>
#include <thread>

#include "support/test_host.hpp"
#include "vrk/ext/buffer_stream.hpp"

namespace {

using vrk::exception;
using vrk_test::counters;
using vrk_test::host_event;
using vrk_test::host_fixture;
using vrk_test::thread_events;

const vrk::error_code CODE{7, "seven", nullptr};

class Registration : public host_fixture {
protected:
    // Host calls after the last clear, without the head queries.
    std::vector<host_event> calls() {
        std::vector<host_event> out;
        for (const host_event& ev : thread_events())
            if (ev.what != host_event::GET_HEAD)
                out.push_back(ev);
        thread_events().clear();
        return out;
    }
};

TEST_F(Registration, ListIsNewestFirstAndUnlinksFromAnywhere) {
    exception e1("f", 1, CODE), e2("f", 2, CODE), e3("f", 3, CODE);
    for (exception* e : {&e1, &e2, &e3})
        e->mark_processed();
    e1.register_on_thread();
    e2.register_on_thread();
    e3.register_on_thread();
    EXPECT_EQ(calls(), (std::vector<host_event>{
                           {host_event::REGISTER, &e1}, {host_event::ADD_RECENT, &e1},
                           {host_event::REGISTER, &e2}, {host_event::ADD_RECENT, &e2},
                           {host_event::REGISTER, &e3}, {host_event::ADD_RECENT, &e3}}));
    EXPECT_EQ(exception::get_first_registered(), &e3);
    EXPECT_EQ(e3.get_next_registered(), &e2);
    EXPECT_EQ(e2.get_next_registered(), &e1);
    EXPECT_EQ(e1.get_next_registered(), nullptr);

    thread_events().clear();
    e3.register_on_thread(); // already registered: not even the head query
    EXPECT_TRUE(thread_events().empty());

    e2.unregister_on_thread(); // middle: one head query, no other host call
    EXPECT_EQ(thread_events(), (std::vector<host_event>{{host_event::GET_HEAD, nullptr}}));
    thread_events().clear();
    EXPECT_EQ(e3.get_next_registered(), &e1);
    EXPECT_EQ(e2.get_next_registered(), nullptr);

    e3.unregister_on_thread(); // head: the next one becomes head
    EXPECT_EQ(calls(), (std::vector<host_event>{{host_event::REGISTER, &e1}}));
    e1.unregister_on_thread(); // the only one: the list empties
    EXPECT_EQ(calls(), (std::vector<host_event>{{host_event::UNREGISTER, &e1}}));
    e1.unregister_on_thread(); // not registered: no host call at all
    EXPECT_TRUE(thread_events().empty());
}

TEST_F(Registration, CopiesThrowsAndAssignmentsMoveIt) {
    exception e("f", 1, CODE);
    e.mark_processed();
    {
        exception plain(e); // e unregistered: nothing moves
        plain.mark_processed();
        EXPECT_EQ(exception::get_first_registered(), nullptr);
    }
    e.register_on_thread();
    {
        exception copy(e);
        copy.mark_processed();
        EXPECT_EQ(exception::get_first_registered(), &copy);
        EXPECT_EQ(e.get_next_registered(), nullptr);
        EXPECT_EQ(copy.get_next_registered(), nullptr);

        exception target("g", 2, CODE);
        target.mark_processed();
        target = copy; // the temporary takes copy's registration and ends it
        EXPECT_EQ(exception::get_first_registered(), nullptr);
    }
    try {
        e.do_throw();
    } catch (const exception& thrown) {
        EXPECT_EQ(exception::get_first_registered(), &thrown) << "the thrown copy carries it";
        thrown.mark_processed();
    }
    EXPECT_EQ(exception::get_first_registered(), nullptr);
    EXPECT_EQ(counters().unhandled, 0);
}

TEST_F(Registration, AppendingUnregistersTheAppendedException) {
    exception a("f", 1, CODE), b("f", 2, CODE);
    a.mark_processed();
    a.register_on_thread();
    b.register_on_thread();
    a.append_exp(a); // itself: stays registered
    EXPECT_EQ(exception::get_first_registered(), &b);
    exception a_copy = exception("f", 3, CODE);
    a_copy = a; // a's registration moved away and ended
    a_copy.register_on_thread();
    a.append_exp(a_copy); // same block: not linked, but unregistered
    EXPECT_EQ(a_copy.get_next_registered(), nullptr);
    EXPECT_EQ(exception::get_first_registered(), &b);
    a << b;
    EXPECT_EQ(exception::get_first_registered(), nullptr);
    a.mark_processed();
}

TEST_F(Registration, NotFoundIsReportedAsForgottenErrorThenUnhandled) {
    exception a("f", 1, CODE);
    a.mark_processed();
    // Registered on another thread: not on this thread's list.
    std::thread([&] { a.register_on_thread(); }).join();
    a.unregister_on_thread();
    EXPECT_EQ(vrk_test::forgotten_errors(),
              (std::vector<int>{vrk::ERR_VRK_NOT_REGISTERED.number()}));
    EXPECT_EQ(counters().unhandled, 1);
    EXPECT_EQ(a.get_next_registered(), nullptr) << "ends unregistered";
    EXPECT_EQ(exception::get_first_registered(), nullptr) << "the error left the list again";
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

void catch_and_print(std::future<void>& f) {
    try {
        f.get();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const exception& e) {
        vrk::buffer_stream<2048> out;
        out.getStream() << e;
    }
}

// The standard library keeps the thrown object and releases it on whichever
// thread drops it last, and a copy kept beyond its handler carries the
// registration. Unregistered on the thread that caught them, they are
// printed and released on another thread without a report, and no thread's
// list keeps them.
TEST_F(Registration, ExceptionsLeaveTheirThreadUnregistered) {
    {
        std::future<void> f = std::async(std::launch::async, throw_to_another_thread);
        catch_and_print(f);
    }
    // On a thread that lives on while they are released here.
    std::promise<void> ready, released;
    std::future<void> is_ready = ready.get_future(), is_released = released.get_future();
    std::thread worker;
    {
        std::promise<void> promise;
        std::packaged_task<void()> task(throw_to_another_thread);
        std::future<void> from_promise = promise.get_future(), from_task = task.get_future();
        std::vector<exception> kept;
        worker = std::thread([&] {
            for (int i = 0; i < 2; ++i) {
                try {
                    VRK_THROW(vrk::runtime_error, CODE);
                } catch (const exception& e) {
                    if (i == 0) {
                        e.unregister_on_thread();
                        promise.set_exception(std::current_exception());
                    } else {
                        kept.push_back(e); // the copy takes the registration over
                        kept.back().unregister_on_thread();
                    }
                }
            }
            task();
            ready.set_value();
            is_released.wait();
            EXPECT_EQ(exception::get_first_registered(), nullptr) << "the worker's list";
        });
        is_ready.wait();
        catch_and_print(from_promise);
        catch_and_print(from_task);
        kept.back().mark_processed();
    }
    released.set_value();
    worker.join();
    EXPECT_EQ(counters().unhandled, 0);
    EXPECT_TRUE(vrk_test::forgotten_errors().empty());
}

TEST_F(Registration, HeadOfOneMeansEmpty) {
    vrk_test::settings().fake_head = true;
    vrk_test::settings().fake_head_value = reinterpret_cast<const exception*>(uintptr_t{1});
    EXPECT_EQ(exception::get_first_registered(), nullptr);
}

TEST_F(Registration, RegisteringTheHostsHeadAgainAborts) {
    EXPECT_DEATH(
        {
            exception a("f", 1, CODE);
            vrk_test::settings().fake_head = true;
            vrk_test::settings().fake_head_value = &a;
            a.register_on_thread();
        },
        "sys/src/vrk/base/impl/exception:[0-9]+: Infinite recursion on exc");
}

} // namespace
