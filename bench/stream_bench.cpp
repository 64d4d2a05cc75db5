// The library's streams against the standard ones: text and integers into a
// fixed buffer stream, and a growing string stream built a character at a
// time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <new>
#include <sstream>

#include "vrk/ext/buffer_stream.hpp"
#include "vrk/sstream.hpp"

namespace {

class malloc_allocator : public vrk::allocator {
public:
    void* allocateNoThrow(size_t size, const void*) noexcept override { return std::malloc(size); }
    void* allocate(size_t size, const void* caller) override { return allocate(size); }
    void* allocate(size_t size) override {
        void* p = std::malloc(size);
        if (p == nullptr)
            throw std::bad_alloc();
        return p;
    }
    void deallocate(void* p) noexcept override { std::free(p); }
};

void BM_BufferStreamText(benchmark::State& state) {
    for (auto _ : state) {
        vrk::buffer_stream<2048> bs;
        for (int i = 0; i < 30; ++i)
            bs << "a line of text of some forty characters\n";
        benchmark::DoNotOptimize(bs.c_str());
    }
    state.SetBytesProcessed(state.iterations() * 30 * 40);
}
BENCHMARK(BM_BufferStreamText)->Name("stream_text/vrk");

void BM_StdOstringstreamText(benchmark::State& state) {
    for (auto _ : state) {
        std::ostringstream os;
        for (int i = 0; i < 30; ++i)
            os << "a line of text of some forty characters\n";
        benchmark::DoNotOptimize(os.str());
    }
    state.SetBytesProcessed(state.iterations() * 30 * 40);
}
BENCHMARK(BM_StdOstringstreamText)->Name("stream_text/ostringstream");

void BM_BufferStreamLong(benchmark::State& state) {
    long v = 0;
    for (auto _ : state) {
        vrk::buffer_stream<2048> bs;
        for (int i = 0; i < 100; ++i)
            bs << (v += 7919) << ' ';
        benchmark::DoNotOptimize(bs.c_str());
    }
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(BM_BufferStreamLong)->Name("stream_long/vrk");

void BM_StdOstringstreamLong(benchmark::State& state) {
    long v = 0;
    for (auto _ : state) {
        std::ostringstream os;
        for (int i = 0; i < 100; ++i)
            os << (v += 7919) << ' ';
        benchmark::DoNotOptimize(os.str());
    }
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(BM_StdOstringstreamLong)->Name("stream_long/ostringstream");

void BM_OsstreamGrowByChar(benchmark::State& state) {
    malloc_allocator ma;
    const long n = state.range(0);
    for (auto _ : state) {
        vrk::osstream os(ma);
        for (long i = 0; i < n; ++i)
            os.put('x');
        benchmark::DoNotOptimize(os.c_str());
    }
    state.SetBytesProcessed(state.iterations() * n);
}
BENCHMARK(BM_OsstreamGrowByChar)->Name("stream_grow/vrk")->Arg(1 << 10)->Arg(1 << 16)->Arg(1 << 20);

void BM_StdOstringstreamGrowByChar(benchmark::State& state) {
    const long n = state.range(0);
    for (auto _ : state) {
        std::ostringstream os;
        for (long i = 0; i < n; ++i)
            os.put('x');
        benchmark::DoNotOptimize(os.str());
    }
    state.SetBytesProcessed(state.iterations() * n);
}
BENCHMARK(BM_StdOstringstreamGrowByChar)
    ->Name("stream_grow/ostringstream")
    ->Arg(1 << 10)
    ->Arg(1 << 16)
    ->Arg(1 << 20);

} // namespace

BENCHMARK_MAIN();
