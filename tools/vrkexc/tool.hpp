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

namespace vrk {
class exception;
}

namespace vrkexc {

constexpr const char* VERSION = VRKEXC_VERSION;
constexpr int EXIT_BAD_INPUT = 1;
constexpr int EXIT_USAGE = 2;

// Every byte of the tool comes from here (malloc and free underneath).
vrk::allocator& tool_allocator() noexcept;

vrk::ostream& out();
vrk::ostream& err();

// Writes `n` bytes as upper-case hexadecimal pairs, 16 to a line.
void write_hex(vrk::ostream& os, const char* p, size_t n);

// How an input is told apart: it is raw bytes when its first byte is 0xF8
// to 0xFF or it holds a zero byte, and text otherwise. Every serialized
// exception starts with a type word of FA to FF and holds zero bytes (in its
// lengths and codes); no text starts with F8 to FF (they are not UTF-8) or
// holds a zero byte. So raw bytes that happen to start with hex-digit
// characters are still read as bytes.
bool is_raw_input(const vrk::string& input) noexcept;

// A place in a text, both counted from 1.
struct text_position {
    size_t line;
    size_t column;
};

// Collects the bytes that hexadecimal text spells, line by line:
//  - a line of `xxd` ("00000010: face 0000 ...  ....") or of `hexdump -C`
//    ("00000010  fa ce 00 00 ...  |....|") gives the hex columns between its
//    offset and its text column; a `hexdump -C` line "*" (lines equal to
//    the one before left out) repeats that line up to the next offset, and
//    the offset alone that ends such a dump gives nothing;
//  - any other line gives the run of hex words that ends it, words being
//    separated by blanks and commas, each digits with or without 0x
//    ("FACE0000", "FA CE 00 00", "0xfa, 0xce", "FA,CE"); whatever precedes
//    the run, such as a log line's time, level and source, is skipped, as is
//    a line that does not end in hex. A prefix that ends in a word of hex
//    digits right before the bytes ("... added FACE...") is read as bytes:
//    such prefixes end in a colon in practice.
// Lines of several dumps follow each other; a leading UTF-8 byte-order mark
// is skipped. False with `*fault` at a word
// whose digits do not make whole bytes (one digit after 0x is one byte).
bool read_hex_text(const vrk::string& text, vrk::string& bytes, text_position* fault);

// Writes `len` bytes of `text` with every byte a terminal could act on
// (control characters but line feed and tab, DEL, C1 controls, bytes that
// are not UTF-8) shown as \xHH.
void write_for_terminal(vrk::ostream& os, const char* text, size_t len);
// Writes `len` bytes as a JSON string; a byte that is not UTF-8 becomes the
// character of its value.
void write_json_string(vrk::ostream& os, const char* text, size_t len);
// Writes a decoded exception as one JSON object, read from `input` at byte
// `offset` with type number `type` (see decode's help).
void write_json_exception(vrk::ostream& os, const vrk::exception& e, const char* input, long offset,
                          unsigned type);

// Reads a whole file ("-" or null: standard input); false and a message on
// the error stream when it cannot.
bool read_input(const char* path, vrk::string& data);

int cmd_decode(int argc, char** argv);
int cmd_encode(int argc, char** argv);
int cmd_demo(int argc, char** argv);
int cmd_symbolize(int argc, char** argv);

} // namespace vrkexc
