// Serializing and deserializing a chain of three exceptions with two
// messages each, and one exception with 32 appended messages of 60-80
// characters, in bytes per second, beside a plain memcpy of the same number
// of bytes (the physical bound of moving them at all).
#include <cstdio>
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
    b << vrk::msgarg_int("BLOCK", 17)
      << vrk::error_message("app/block.cpp", 22, 7112, "retried 3 times");
    vrk::exception c("app/dev.cpp", 30, ERR_C, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    c << vrk::msgarg_text("DEV", "sdb1")
      << vrk::error_message("app/dev.cpp", 32, 7113, "reset pending");
    a << b << c;
    a.mark_processed();
    return a;
}

vrk::exception make_long() {
    vrk::exception e("app/batch.cpp", 40, ERR_A, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    e << vrk::msgarg_text("FILE", "/var/lib/app/batch.db");
    for (int i = 0; i < 32; ++i) {
        char text[96];
        std::snprintf(text, sizeof text, "record %d of the nightly import was rejected: %.*s", i,
                      10 + i % 20, "checksum, length and owner all differ");
        e.append_message("app/batch.cpp", 41 + i, 7120 + i, text);
    }
    e.mark_processed();
    return e;
}

std::vector<char> wire_bytes(const vrk::exception& e) {
    vrk::osstream os(g_heap);
    e.serialize(os, false);
    vrk::string s = os.str();
    return std::vector<char>(s.data(), s.data() + s.size());
}

void bm_serialize(benchmark::State& state, vrk::exception (*make)()) {
    const vrk::exception e = make();
    const size_t n = wire_bytes(e).size();
    vrk::osstream os(g_heap);
    for (auto _ : state) {
        os.rdbuf()->clear(); // keep the storage: a reused stream
        e.serialize(os, false);
        benchmark::DoNotOptimize(os.rdbuf());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

void bm_deserialize(benchmark::State& state, vrk::exception (*make)()) {
    const std::vector<char> bytes = wire_bytes(make());
    vrk::isstream in(bytes.data(), bytes.size(), g_heap);
    for (auto _ : state) {
        in.clear();
        in.rdbuf()->pubseekpos(0, vrk::impl::in); // a reused stream, as the writer's
        auto back = vrk::exception::deserialize(in, g_heap);
        back->mark_processed();
        benchmark::DoNotOptimize(back.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

// The peer of both: moving the same bytes with memcpy.
void bm_memcpy_same_bytes(benchmark::State& state, vrk::exception (*make)()) {
    const std::vector<char> bytes = wire_bytes(make());
    std::vector<char> dst(bytes.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), bytes.data(), bytes.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

BENCHMARK_CAPTURE(bm_serialize, chain, make_chain)->Name("serialize_chain/vrk");
BENCHMARK_CAPTURE(bm_memcpy_same_bytes, chain, make_chain)->Name("serialize_chain/memcpy");
BENCHMARK_CAPTURE(bm_deserialize, chain, make_chain)->Name("deserialize_chain/vrk");
BENCHMARK_CAPTURE(bm_memcpy_same_bytes, chain, make_chain)->Name("deserialize_chain/memcpy");
BENCHMARK_CAPTURE(bm_serialize, long, make_long)->Name("serialize_32_messages/vrk");
BENCHMARK_CAPTURE(bm_memcpy_same_bytes, long, make_long)->Name("serialize_32_messages/memcpy");
BENCHMARK_CAPTURE(bm_deserialize, long, make_long)->Name("deserialize_32_messages/vrk");
BENCHMARK_CAPTURE(bm_memcpy_same_bytes, long, make_long)->Name("deserialize_32_messages/memcpy");

} // namespace

BENCHMARK_MAIN();
