// vrkexc decode: prints each serialized exception of the input.
#include <cstring>
#include <new>

#include "tool.hpp"
#include "vrk/exception.hpp"
#include "vrk/sstream.hpp"

namespace vrkexc {

namespace {

const char* const HELP =
    "usage: vrkexc decode [--short] [--no-stack] [FILE|-]\n"
    "\n"
    "Reads one or more serialized exceptions from FILE (standard input when\n"
    "FILE is '-' or missing) and prints each. The input is either raw bytes\n"
    "or hexadecimal text as logs carry it; blanks and line breaks in the text\n"
    "are ignored.\n"
    "\n"
    "  --short     one line per message instead of the long form\n"
    "  --no-stack  leave out the throw-location sections\n"
    "\n"
    "Exit status: 0 when every exception decoded, 1 on bad input, 2 on a\n"
    "usage error.\n";

void fail(const char* what) {
    out().flush();
    err() << "vrkexc decode: " << what << "\n";
    err().flush();
}

} // namespace

int cmd_decode(int argc, char** argv) {
    bool short_form = false, no_stack = false;
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            out() << HELP;
            return 0;
        }
        if (std::strcmp(argv[i], "--short") == 0) {
            short_form = true;
        } else if (std::strcmp(argv[i], "--no-stack") == 0) {
            no_stack = true;
        } else if (path == nullptr && (argv[i][0] != '-' || argv[i][1] == '\0')) {
            path = argv[i];
        } else {
            err() << "vrkexc decode: unexpected argument '" << argv[i] << "'\n" << HELP;
            return EXIT_USAGE;
        }
    }

    vrk::allocator& ma = tool_allocator();
    try {
        vrk::string input(ma);
        if (!read_input(path, input))
            return EXIT_BAD_INPUT;
        vrk::string bytes(ma);
        if (looks_like_hex(input)) {
            size_t bad_at = 0;
            if (!decode_hex(input, bytes, &bad_at)) {
                out().flush();
                err() << "vrkexc decode: bad hexadecimal text at offset " << bad_at << "\n";
                return EXIT_BAD_INPUT;
            }
        } else {
            bytes.swap(input);
        }
        if (bytes.empty()) {
            fail("no input");
            return EXIT_BAD_INPUT;
        }

        vrk::isstream in(bytes.data(), bytes.size(), ma);
        for (int index = 1; in.rdbuf()->in_avail() > 0; ++index) {
            const auto offset = static_cast<long>(in.tellg());
            try {
                auto e = vrk::exception::deserialize(in, ma);
                if (!e) {
                    fail("a registered creator returned no exception");
                    return EXIT_BAD_INPUT;
                }
                if (short_form) {
                    vrk::string text = e->what(ma, no_stack);
                    out().write(text.data(), static_cast<vrk::streamsize>(text.size()));
                } else {
                    e->print_default(out(), no_stack, no_stack);
                }
            } catch (const vrk::exception& bad) {
                vrk::string text = bad.what(ma, true);
                out().flush();
                err() << "vrkexc decode: exception " << index << " (at byte " << offset
                      << ") is not valid:\n";
                err().write(text.data(), static_cast<vrk::streamsize>(text.size()));
                return EXIT_BAD_INPUT;
            }
        }
    } catch (const std::bad_alloc&) {
        fail("out of memory");
        return EXIT_BAD_INPUT;
    }
    return 0;
}

} // namespace vrkexc
