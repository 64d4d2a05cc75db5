// iToA against std::to_chars and snprintf, decimal and hexadecimal, 32- and
// 64-bit values of mixed lengths, of one or two digits, and at the maximum.
#include "vrk/ext/itoa.hpp"

#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace {

enum class kind { mixed, small, max };

// Values per iteration: enough that the branch predictor cannot learn the
// sequence of lengths, few enough to stay in the first-level cache.
constexpr size_t COUNT = 4096;

// Values of the given kind; "mixed" draws the digit count uniformly, and
// signed types get a random sign.
template <class T> std::vector<T> make_values(kind k, int radix) {
    using U = std::make_unsigned_t<T>;
    std::mt19937_64 rng(42);
    std::vector<T> v(COUNT);
    const U top = static_cast<U>(std::numeric_limits<T>::max());
    int digits = 0;
    for (U x = top; x != 0; x /= static_cast<U>(radix))
        ++digits;
    for (T& x : v) {
        U u;
        if (k == kind::max) {
            u = top;
        } else {
            const int n = k == kind::small ? 1 + static_cast<int>(rng() % 2)
                                           : 1 + static_cast<int>(rng() % digits);
            U lo = 1, hi;
            for (int i = 1; i < n; ++i)
                lo *= static_cast<U>(radix);
            hi = n == digits ? top : static_cast<U>(lo * static_cast<U>(radix) - 1);
            if (n == 1)
                lo = 0;
            u = static_cast<U>(lo + rng() % (static_cast<unsigned long>(hi - lo) + 1));
        }
        x = static_cast<T>(u);
        if constexpr (std::is_signed_v<T>) {
            if (k == kind::mixed && (rng() & 1))
                x = static_cast<T>(-x);
        }
    }
    return v;
}

template <class T> void bm_vrk(benchmark::State& state, kind k, int radix) {
    const std::vector<T> values = make_values<T>(k, radix);
    char buf[64];
    for (auto _ : state) {
        for (T x : values) {
            benchmark::DoNotOptimize(vrk::impl::iToA<T>(x, buf, sizeof buf, radix, 0));
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * COUNT));
}

template <class T> void bm_to_chars(benchmark::State& state, kind k, int radix) {
    const std::vector<T> values = make_values<T>(k, radix);
    char buf[64];
    for (auto _ : state) {
        for (T x : values) {
            // Octal and hexadecimal show the bit pattern, as iToA does.
            benchmark::DoNotOptimize(std::to_chars(
                buf, buf + sizeof buf,
                radix == 10 ? x : static_cast<T>(static_cast<std::make_unsigned_t<T>>(x)), radix));
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * COUNT));
}

template <class T> void bm_snprintf(benchmark::State& state, kind k, int radix) {
    const std::vector<T> values = make_values<T>(k, radix);
    const bool wide = sizeof(T) == 8;
    const char* fmt = radix == 16           ? (wide ? "%lx" : "%x")
                      : std::is_signed_v<T> ? (wide ? "%ld" : "%d")
                                            : (wide ? "%lu" : "%u");
    char buf[64];
    for (auto _ : state) {
        for (T x : values) {
            benchmark::DoNotOptimize(std::snprintf(buf, sizeof buf, fmt, x));
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * COUNT));
}

template <class T> void register_all(const char* type_name, int radix) {
    static const std::pair<kind, const char*> KINDS[] = {
        {kind::mixed, "mixed"}, {kind::small, "small"}, {kind::max, "max"}};
    for (const auto& [k, kind_name] : KINDS) {
        // "<case>/<implementation>", as bench/run.sh pairs them.
        const std::string head =
            std::string("itoa/") + type_name + (radix == 16 ? "/hex/" : "/dec/") + kind_name + "/";
        const kind kk = k;
        benchmark::RegisterBenchmark((head + "vrk").c_str(),
                                     [=](benchmark::State& s) { bm_vrk<T>(s, kk, radix); });
        benchmark::RegisterBenchmark((head + "to_chars").c_str(),
                                     [=](benchmark::State& s) { bm_to_chars<T>(s, kk, radix); });
        benchmark::RegisterBenchmark((head + "snprintf").c_str(),
                                     [=](benchmark::State& s) { bm_snprintf<T>(s, kk, radix); });
    }
}

} // namespace

int main(int argc, char** argv) {
    register_all<unsigned int>("u32", 10);
    register_all<int>("i32", 10);
    register_all<unsigned long>("u64", 10);
    register_all<long>("i64", 10);
    register_all<unsigned int>("u32", 16);
    register_all<unsigned long>("u64", 16);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
