// Allocation-failure sweeps: run a scenario once to count its allocation
// requests, then once per request index with that one request failing, and
// once per index with every request from there on failing.
//
// Every run gets a fresh counting allocator, which also serves as the
// default allocator of the test host; after each run it must be back at zero
// blocks with nothing released twice. The driver itself allocates nothing
// from the allocator under test.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "support/test_allocator.hpp"
#include "support/test_host.hpp"

namespace vrk_test {

// One run of a sweep: which requests fail, and the allocator that fails them.
struct fault_point {
    enum mode_t { NONE, AT, FROM };

    mode_t mode;
    long index; // the first failing request; -1 for the counting run
    test_allocator& alloc;

    // True when request `n` (0-based, in the order the scenario makes them)
    // fails in this run. Scenarios model their degraded result with it.
    bool fails(long n) const noexcept {
        return mode == AT ? n == index : mode == FROM ? n >= index : false;
    }
    std::string label() const {
        return mode == NONE
                   ? "no failure"
                   : std::string(mode == AT ? "fail_at " : "fail_from ") + std::to_string(index);
    }
};

// Runs `scenario(const fault_point&)` over every failure point. The scenario
// checks its own degraded result with gtest assertions; the driver checks
// the balance, double releases, that the chosen request really failed (the
// requests are made in the same order as in the counting run up to it) and
// that nothing escaped.
template <class Scenario> void fault_sweep(const char* name, Scenario&& scenario) {
    auto run = [&](fault_point::mode_t mode, long index) -> long {
        test_allocator alloc;
        if (mode == fault_point::AT)
            alloc.fail_at(index);
        else if (mode == fault_point::FROM)
            alloc.fail_from(index);
        const fault_point fp{mode, index, alloc};
        SCOPED_TRACE(std::string(name) + ", " + fp.label());
        set_default_allocator(&alloc);
        try {
            scenario(fp);
        } catch (...) {
            ADD_FAILURE() << "an exception escaped the scenario";
        }
        set_default_allocator(nullptr);
        EXPECT_EQ(alloc.balance(), 0) << "blocks leaked";
        EXPECT_EQ(alloc.bad_releases(), 0) << "a block was released twice or by a stranger";
        if (mode == fault_point::AT) {
            EXPECT_EQ(alloc.failures(), 1) << "the request to fail was never made";
        } else if (mode == fault_point::FROM) {
            EXPECT_GE(alloc.failures(), 1) << "the request to fail was never made";
        }
        return alloc.requests();
    };

    const long points = run(fault_point::NONE, -1);
    EXPECT_GT(points, 0) << name << ": the scenario allocates nothing";
    for (auto mode : {fault_point::AT, fault_point::FROM})
        for (long i = 0; i < points && !::testing::Test::HasFatalFailure(); ++i)
            run(mode, i);
}

} // namespace vrk_test
