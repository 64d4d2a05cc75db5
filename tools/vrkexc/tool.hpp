// vrkexc/tool.hpp: what the commands of vrkexc share: the tool's allocator,
// its standard streams, hexadecimal text, and the command entry points.
//
// Commands return the process exit status: 0 success, 1 bad input or a
// failed check, 2 a usage error. They never let an exception escape.
#pragma once

#include <cstddef>

#include "vrk/memory.hpp"
#include "vrk/ostream.hpp"
#include "vrk/string.hpp"

namespace vrkexc {

constexpr int EXIT_BAD_INPUT = 1;
constexpr int EXIT_USAGE = 2;

// Every byte of the tool comes from here (malloc and free underneath).
vrk::allocator& tool_allocator() noexcept;

vrk::ostream& out();
vrk::ostream& err();

// Writes `n` bytes as upper-case hexadecimal pairs, 16 to a line.
void write_hex(vrk::ostream& os, const char* p, size_t n);
// True when the input looks like hexadecimal text rather than raw bytes:
// its first non-blank byte is a hexadecimal digit (a serialized exception
// starts with a byte of at least 0xFA).
bool looks_like_hex(const vrk::string& text) noexcept;
// Decodes hexadecimal text, ignoring blanks and line breaks. On a bad
// character or an odd digit count returns false and sets `*bad_at` to the
// offset of the fault.
bool decode_hex(const vrk::string& text, vrk::string& bytes, size_t* bad_at);

// Reads a whole file ("-" or null: standard input); false and a message on
// the error stream when it cannot.
bool read_input(const char* path, vrk::string& data);

int cmd_decode(int argc, char** argv);
int cmd_encode(int argc, char** argv);
int cmd_demo(int argc, char** argv);
int cmd_symbolize(int argc, char** argv);

} // namespace vrkexc
