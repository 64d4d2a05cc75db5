// Message expansion and argument rendering: a typical message, a message
// with many parameters it does not mention (the remainder's quadratic
// search), one argument of each costly kind, and dtoa against snprintf.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "vrk/exception.hpp"
#include "vrk/ext/dtoa.hpp"

namespace {

const void* const NO_STACK = vrk::exception::CALLER_SUPPRESS_STACK_TRACE;

void BM_ExpandTypical(benchmark::State& state) {
    vrk::exception e("f", 1,
                     vrk::error_code{1, "Bad data pattern: $CURRENT$, expected: $EXPECT$", nullptr},
                     NO_STACK);
    e << vrk::msgarg_uint("CURRENT", 0xADDDEED2u, true)
      << vrk::msgarg_uint("EXPECT", 0xDEFACED2u, true);
    const vrk::exception_node& n = *e.begin();
    char buf[256];
    for (auto _ : state)
        benchmark::DoNotOptimize(n.expand(buf, sizeof buf));
}
BENCHMARK(BM_ExpandTypical);

void BM_ExpandUnmentioned(benchmark::State& state) {
    vrk::exception e("f", 1,
                     vrk::error_code{1, "a message that names none of its arguments", nullptr},
                     NO_STACK);
    for (int i = 0; i < state.range(0); ++i) {
        const std::string name = "NAME" + std::to_string(i);
        e << vrk::msgarg_int(name.c_str(), i);
    }
    const vrk::exception_node& n = *e.begin();
    static char buf[16384];
    for (auto _ : state)
        benchmark::DoNotOptimize(n.expand(buf, sizeof buf));
}
BENCHMARK(BM_ExpandUnmentioned)->Arg(4)->Arg(32);

template <class Arg> void BM_CreateWithArgument(benchmark::State& state, Arg arg) {
    for (auto _ : state) {
        vrk::exception e("f", 1, vrk::error_code{1, "value $V$", nullptr}, NO_STACK);
        e << arg;
        e.mark_processed();
    }
}
void BM_CreateWithoutArgument(benchmark::State& state) {
    for (auto _ : state) {
        vrk::exception e("f", 1, vrk::error_code{1, "value $V$", nullptr}, NO_STACK);
        e.mark_processed();
    }
}
BENCHMARK(BM_CreateWithoutArgument);
BENCHMARK_CAPTURE(BM_CreateWithArgument, int, vrk::msgarg_int("V", -123456));
BENCHMARK_CAPTURE(BM_CreateWithArgument, double, vrk::msgarg_double("V", 3.14159265358979));
const std::string kText(400, 'x');
BENCHMARK_CAPTURE(BM_CreateWithArgument, hex_dump_400, vrk::msgarg_text("V", kText.c_str(), true));

void BM_Dtoa(benchmark::State& state) {
    char buf[66];
    double v = 3.14159265358979;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vrk::dtoa(v, 12, buf, sizeof buf));
        v += 1.0;
    }
}
BENCHMARK(BM_Dtoa);

void BM_SnprintfG12(benchmark::State& state) {
    char buf[66];
    double v = 3.14159265358979;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buf, sizeof buf, "%.12g", v));
        v += 1.0;
    }
}
BENCHMARK(BM_SnprintfG12);

} // namespace

BENCHMARK_MAIN();
