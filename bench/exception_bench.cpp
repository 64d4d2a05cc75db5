// The exception facility against what a user would reach for instead, each
// pair in the same run. A benchmark is named "<case>/<implementation>";
// "vrk" is ours, every other last component is a peer (bench/run.sh pairs
// them into a table).
//
//   handle_copy        copy and destroy of a handle / std::shared_ptr (plain
//                      counting while single-threaded, and atomic)
//   build_print        create (no stack), append a message, three arguments,
//                      long form into a reused string stream / snprintf into
//                      a stack buffer plus two malloc/free / std::ostringstream
//   throw_catch        create with stack capture, throw, catch at depth 1 and
//                      10 / std::runtime_error
//   throw_catch_2thr   the same in two threads at once
//   throw_idiom        the hand-written throw: a local object,
//                      register_on_thread(), do_throw(), depth 1 /
//                      std::runtime_error
//   chain_walk         two linked exceptions walked with get_next() /
//                      std::throw_with_nested and std::rethrow_if_nested
//   chain_append       50,000 exceptions appended to one chain / 10,000 of
//                      them: how an append's cost grows with the chain
//   chain_turns        50,000 exceptions appended to 2 and to 32 chains in
//                      turn / to one chain: whether chains growing side by
//                      side slow each other down
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iomanip>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/ext/message_args.hpp"
#include "vrk/memory.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::heap_allocator;

heap_allocator g_heap;

constexpr const char* FILE_NAME = "sys/src/vrk/bench";
constexpr const char* MESSAGE = "Cannot open $FILE$: error $ERRNO$ after $TRIES$ tries";
constexpr const char* FILE_ARG = "/var/lib/app/data.bin";

// --- handle copy and destroy -------------------------------------------------

// One block shared by every thread of a run; marked processed when the run
// ends so that it is not reported as forgotten.
struct shared_exception {
    vrk::exception e{FILE_NAME, __LINE__, vrk::ERR_VRK_RUNTIME,
                     vrk::exception::CALLER_SUPPRESS_STACK_TRACE};
    ~shared_exception() { e.mark_processed(); }
};

void handle_copy_vrk(benchmark::State& state) {
    static shared_exception shared;
    for (auto _ : state) {
        vrk::exception copy(shared.e);
        benchmark::DoNotOptimize(&copy);
    }
}

void handle_copy_shared_ptr(benchmark::State& state) {
    static const std::shared_ptr<int> shared = std::make_shared<int>(1);
    for (auto _ : state) {
        std::shared_ptr<int> copy(shared);
        benchmark::DoNotOptimize(&copy);
    }
}

// The standard library counts with plain arithmetic while the process has
// one thread; this peer starts (and ends) a thread first, so it counts with
// atomic operations as in any multi-threaded product. Benchmarks registered
// after it run in a process that has had a second thread.
void handle_copy_shared_ptr_atomic(benchmark::State& state) {
    std::thread([] {}).join();
    handle_copy_shared_ptr(state);
}

// --- build and print -----------------------------------------------------------

void build_print_vrk(benchmark::State& state) {
    vrk::osstream os(g_heap);
    for (auto _ : state) {
        os.rdbuf()->clear();
        vrk::exception e(FILE_NAME, 41, vrk::ERR_VRK_RUNTIME,
                         vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
        e.append_message(FILE_NAME, 42, 2, MESSAGE);
        e << vrk::msgarg_text("FILE", FILE_ARG) << vrk::msgarg_int("ERRNO", 2)
          << vrk::msgarg_int("TRIES", 3);
        os << e;
        benchmark::DoNotOptimize(os.rdbuf()->size());
    }
}

// The same text: one formatted print into a stack buffer, and two heap
// blocks standing in for an exception object and its message.
void build_print_snprintf_malloc(benchmark::State& state) {
    for (auto _ : state) {
        void* block = std::malloc(200);
        void* node = std::malloc(120);
        benchmark::DoNotOptimize(block);
        benchmark::DoNotOptimize(node);
        char text[512];
        const int n = std::snprintf(
            text, sizeof text,
            "exception%3d: no.%d  (%s:%d)\n    %s\nexception%3d: no.%d  (%s:%d)\n"
            "    Cannot open %s: error %d after %d tries\n"
            "NO exception throw location recorded. Stack generation suppressed.\n",
            1, 1001, FILE_NAME, 41, "Runtime error", 1, 2, FILE_NAME, 42, FILE_ARG, 2, 3);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(text);
        std::free(node);
        std::free(block);
    }
}

// The same text with a fresh standard string stream, as a caller building a
// message with one would write it.
void build_print_ostringstream(benchmark::State& state) {
    for (auto _ : state) {
        std::ostringstream os;
        os << "exception" << std::setw(3) << 1 << ": no." << 1001 << "  (" << FILE_NAME << ':' << 41
           << ")\n    Runtime error\n";
        os << "exception" << std::setw(3) << 1 << ": no." << 2 << "  (" << FILE_NAME << ':' << 42
           << ")\n    Cannot open " << FILE_ARG << ": error " << 2 << " after " << 3 << " tries\n";
        os << "NO exception throw location recorded. Stack generation suppressed.\n";
        benchmark::DoNotOptimize(os.str());
    }
}

// --- throw and catch -----------------------------------------------------------

// The throw sits in an out-of-line helper; ours is the library's throw
// site, VRK_THROW_AT (create with stack capture, register, throw). Both
// recursions are the same code around their helper, which the optimiser can
// neither flatten nor turn into a loop.
__attribute__((noinline)) void raise_vrk() {
    VRK_THROW_AT(FILE_NAME, __LINE__, vrk::runtime_error, vrk::ERR_VRK_RUNTIME);
}

__attribute__((noinline)) void raise_std() { throw std::runtime_error("Runtime error"); }

__attribute__((noinline)) void throw_at(int depth, void (*raise)()) {
    if (depth > 1) {
        throw_at(depth - 1, raise);
        benchmark::ClobberMemory();
        return;
    }
    raise();
}

__attribute__((noinline)) void raise_vrk_idiom() {
    vrk::runtime_error e(FILE_NAME, __LINE__, vrk::ERR_VRK_RUNTIME);
    e.register_on_thread();
    e.do_throw();
}

void throw_catch_vrk(benchmark::State& state, int depth, void (*raise)() = raise_vrk) {
    for (auto _ : state) {
        try {
            throw_at(depth, raise);
        } catch (const vrk::exception& e) {
            e.mark_processed();
            benchmark::DoNotOptimize(e.error_no());
        }
    }
}

void throw_catch_runtime_error(benchmark::State& state, int depth) {
    for (auto _ : state) {
        try {
            throw_at(depth, raise_std);
        } catch (const std::exception& e) {
            benchmark::DoNotOptimize(e.what());
        }
    }
}

// --- chains --------------------------------------------------------------------

void chain_walk_vrk(benchmark::State& state) {
    for (auto _ : state) {
        vrk::exception outer(FILE_NAME, 1, vrk::ERR_VRK_RUNTIME);
        {
            vrk::exception inner(FILE_NAME, 2, vrk::ERR_VRK_LOGIC);
            outer.append_exp(inner);
        }
        int count = 0;
        for (vrk::exception cur = outer; cur.data() != nullptr; cur = cur.get_next())
            count += cur.error_no() != 0;
        benchmark::DoNotOptimize(count);
    }
}

void chain_walk_nested(benchmark::State& state) {
    for (auto _ : state) {
        int count = 0;
        try {
            try {
                throw std::logic_error("Logic error");
            } catch (...) {
                std::throw_with_nested(std::runtime_error("Runtime error"));
            }
        } catch (const std::exception& outer) {
            ++count;
            try {
                std::rethrow_if_nested(outer);
            } catch (const std::exception& inner) {
                count += inner.what() != nullptr;
            }
        }
        benchmark::DoNotOptimize(count);
    }
}

// Appends `count` exceptions (no stack capture) behind one, and releases the
// chain.
void append_chain(int count) {
    vrk::exception head(FILE_NAME, 1, vrk::ERR_VRK_RUNTIME,
                        vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    for (int i = 0; i < count; ++i) {
        vrk::exception e(FILE_NAME, 2, vrk::ERR_VRK_LOGIC,
                         vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
        head.append_exp(e);
    }
    head.mark_processed();
}

void chain_append(benchmark::State& state, int count) {
    for (auto _ : state)
        append_chain(count);
}

// Appends 50,000 exceptions (no stack capture) to `chains` chains, one
// chain after the other, and releases them.
void chain_turns(benchmark::State& state, int chains) {
    const auto make = [](int line) {
        return vrk::exception(FILE_NAME, line, vrk::ERR_VRK_RUNTIME,
                              vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    };
    for (auto _ : state) {
        std::vector<vrk::exception> heads;
        heads.reserve(static_cast<size_t>(chains));
        for (int c = 0; c < chains; ++c)
            heads.push_back(make(1));
        for (int i = 0; i < 50000; ++i) {
            vrk::exception e = make(2);
            heads[i % chains].append_exp(e);
        }
        for (vrk::exception& head : heads)
            head.mark_processed();
    }
}

} // namespace

BENCHMARK(handle_copy_vrk)->Name("handle_copy/1thr/vrk");
BENCHMARK(handle_copy_shared_ptr)->Name("handle_copy/1thr/shared_ptr");
BENCHMARK(handle_copy_shared_ptr_atomic)->Name("handle_copy/1thr/shared_ptr_atomic");
BENCHMARK(handle_copy_vrk)->Name("handle_copy/2thr/vrk")->Threads(2)->UseRealTime();
BENCHMARK(handle_copy_shared_ptr)->Name("handle_copy/2thr/shared_ptr")->Threads(2)->UseRealTime();

BENCHMARK(build_print_vrk)->Name("build_print/vrk");
BENCHMARK(build_print_snprintf_malloc)->Name("build_print/snprintf_malloc");
BENCHMARK(build_print_ostringstream)->Name("build_print/ostringstream");

BENCHMARK_CAPTURE(throw_catch_vrk, d1, 1)->Name("throw_catch/depth1/vrk");
BENCHMARK_CAPTURE(throw_catch_runtime_error, d1, 1)->Name("throw_catch/depth1/runtime_error");
BENCHMARK_CAPTURE(throw_catch_vrk, idiom, 1, raise_vrk_idiom)->Name("throw_idiom/depth1/vrk");
BENCHMARK_CAPTURE(throw_catch_runtime_error, idiom, 1)->Name("throw_idiom/depth1/runtime_error");
BENCHMARK_CAPTURE(throw_catch_vrk, d10, 10)->Name("throw_catch/depth10/vrk");
BENCHMARK_CAPTURE(throw_catch_runtime_error, d10, 10)->Name("throw_catch/depth10/runtime_error");
BENCHMARK_CAPTURE(throw_catch_vrk, d10, 10)
    ->Name("throw_catch_2thr/depth10/vrk")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK_CAPTURE(throw_catch_runtime_error, d10, 10)
    ->Name("throw_catch_2thr/depth10/runtime_error")
    ->Threads(2)
    ->UseRealTime();

BENCHMARK(chain_walk_vrk)->Name("chain_walk/vrk");
BENCHMARK(chain_walk_nested)->Name("chain_walk/nested");
BENCHMARK_CAPTURE(chain_append, n50000, 50000)
    ->Name("chain_append_50000/vrk")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(chain_append, n10000, 10000)
    ->Name("chain_append_50000/vrk_10000")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(chain_turns, c2, 2)->Name("chain_turns_2/vrk")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(chain_turns, c1, 1)
    ->Name("chain_turns_2/vrk_one_chain")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(chain_turns, c32, 32)->Name("chain_turns_32/vrk")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(chain_turns, c1, 1)
    ->Name("chain_turns_32/vrk_one_chain")
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
