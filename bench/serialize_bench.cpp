// Serializing and deserializing a chain of three exceptions with two
// messages each, in bytes per second, beside a plain memcpy of the same
// number of bytes (the physical bound of moving them at all).
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/sstream.hpp"

namespace {

vrk::heap_allocator g_heap;
const vrk::error_code ERR_A{7101, "Cannot open $FILE$", nullptr};
const vrk::error_code ERR_B{7102, "Checksum mismatch in block $BLOCK$", nullptr};
const vrk::error_code ERR_C{7103, "Device $DEV$ not ready", nullptr};

vrk::exception make_chain() {
    vrk::exception a("app/open.cpp", 10, ERR_A, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    a << vrk::msgarg_text("FILE", "/var/lib/app/journal.db")
      << vrk::error_message("app/open.cpp", 12, 7111, "while restoring the session");
    vrk::exception b("app/block.cpp", 20, ERR_B, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    b << vrk::msgarg_int("BLOCK", 17) << vrk::error_message("app/block.cpp", 22, 7112, "retried 3 times");
    vrk::exception c("app/dev.cpp", 30, ERR_C, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    c << vrk::msgarg_text("DEV", "sdb1") << vrk::error_message("app/dev.cpp", 32, 7113, "reset pending");
    a << b << c;
    a.mark_processed();
    return a;
}

std::vector<char> wire_bytes(const vrk::exception& e) {
    vrk::osstream os(g_heap);
    e.serialize(os, false);
    vrk::string s = os.str();
    return std::vector<char>(s.data(), s.data() + s.size());
}

void bm_serialize_chain(benchmark::State& state) {
    const vrk::exception chain = make_chain();
    const size_t n = wire_bytes(chain).size();
    vrk::osstream os(g_heap);
    for (auto _ : state) {
        os.rdbuf()->clear(); // keep the storage: a reused stream
        chain.serialize(os, false);
        benchmark::DoNotOptimize(os.rdbuf());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(bm_serialize_chain)->Name("serialize_chain/vrk");

void bm_deserialize_chain(benchmark::State& state) {
    const std::vector<char> bytes = wire_bytes(make_chain());
    for (auto _ : state) {
        vrk::isstream in(bytes.data(), bytes.size(), g_heap);
        auto back = vrk::exception::deserialize(in, g_heap);
        back->mark_processed();
        benchmark::DoNotOptimize(back.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(bm_deserialize_chain)->Name("deserialize_chain/vrk");

// The peer of both: moving the same bytes with memcpy.
void bm_memcpy_same_bytes(benchmark::State& state) {
    const std::vector<char> bytes = wire_bytes(make_chain());
    std::vector<char> dst(bytes.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), bytes.data(), bytes.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(bm_memcpy_same_bytes)->Name("serialize_chain/memcpy");
BENCHMARK(bm_memcpy_same_bytes)->Name("deserialize_chain/memcpy");

} // namespace

BENCHMARK_MAIN();
