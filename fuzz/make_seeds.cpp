// Writes the seed corpus of fuzz_deserialize: valid serialized exceptions of
// every shape the format has (chains, many nodes, arguments, stack texts,
// suppressed stacks, bad-allocation bodies, a derived type header, many long
// texts, a chain of 64).
// usage: make_seeds_deserialize DIR
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::heap_allocator;

heap_allocator heap;
std::string dir;
int count = 0;

void write_seed(const std::string& bytes) {
    const std::string path = dir + "/seed_" + std::to_string(count++);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::fclose(f);
}

void write_exception(const vrk::exception& e, bool suppress_stack, const std::string& header = "") {
    vrk::osstream os(heap);
    e.serialize(os, suppress_stack);
    vrk::string s = os.str();
    // A header given replaces the type header.
    write_seed(header.empty() ? std::string(s.data(), s.size())
                              : header + std::string(s.data() + 8, s.size() - 8));
}

std::string word(uint32_t w) {
    const char b[4] = {static_cast<char>(w >> 24), static_cast<char>(w >> 16),
                       static_cast<char>(w >> 8), static_cast<char>(w)};
    return std::string(b, 4);
}

const vrk::error_code OPEN{1201, "Cannot open $FILE$ ($ERRNO$)", nullptr};
const vrk::error_code PLAIN{7, "boom", nullptr};
const void* const NO_STACK = vrk::exception::CALLER_SUPPRESS_STACK_TRACE;

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    dir = argv[1];

    vrk::exception one("a.src", 42, PLAIN, NO_STACK);
    write_exception(one, true);
    write_exception(one, false);

    vrk::exception args("sys/io/file.cpp", 310, OPEN);
    args << vrk::msgarg_text("FILE", "/etc/app.conf") << vrk::msgarg_int("ERRNO", -13);
    args.append_message(nullptr, -1, -2, "");
    args.append_message("main.cpp", 9, 3, "Start-up of $WHAT$ failed");
    args << vrk::msgarg_uint64("WHAT", 18446744073709551615ul);
    write_exception(args, false);

    vrk::exception head("head.cpp", 1, PLAIN);
    vrk::exception mid("mid.cpp", 2, OPEN, NO_STACK);
    mid.append_message("mid.cpp", 3, 4, "second node");
    vrk::exception tail("tail.cpp", 5, PLAIN);
    mid << tail;
    head << mid;
    write_exception(head, false);
    write_exception(head, true);

    // Many long texts and a long chain: a writer whose scratch memory grows
    // with the number of texts, or loses one, fails on these.
    vrk::exception many("many.cpp", 10, PLAIN);
    for (int i = 0; i < 64; ++i)
        many.append_message("many.cpp", i, i, std::string(60 + i % 21, 'm').c_str());
    write_exception(many, false);
    vrk::exception chain("chain.cpp", 0, PLAIN, NO_STACK);
    for (int i = 1; i < 64; ++i) {
        vrk::exception link("chain.cpp", i, PLAIN, NO_STACK);
        link.append_message("chain.cpp", i, i, std::string(60 + i % 21, 'c').c_str());
        chain << link;
    }
    write_exception(chain, false);

    // Bodies with no data block, written by hand: they come from exceptions
    // whose allocation failed.
    const std::string base_header = word(0xFACE0000u) + word(0xFACADE01u);
    write_seed(base_header + word(0xDEFACED2u) + word(7) + word(5) + word(1) + "x");
    write_seed(base_header + word(0xDEFACED2u) + word(7) + word(6) + word(0));
    // The derived type 1 of the fuzz target: one extra header word.
    write_exception(one, true, word(0xFACE0001u) + word(1));

    std::printf("wrote %d seeds to %s\n", count, dir.c_str());
    return 0;
}
