// vrkexc encode: builds an exception chain from the command line and writes
// its serialized bytes, for making test input.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <optional>
#include <unistd.h>

#include "fd_streambuf.hpp"
#include "tool.hpp"
#include "vrk/exception.hpp"
#include "vrk/sstream.hpp"

namespace vrkexc {

namespace {

const char* const HELP =
    "usage: vrkexc encode [--hex] [--no-stack] [-o FILE] MESSAGE-OPTIONS...\n"
    "\n"
    "Builds an exception and writes its serialized bytes to standard output\n"
    "(or FILE). Message options are read in order:\n"
    "\n"
    "  --error N          error number of the following messages (default 1)\n"
    "  --file NAME        source file of the following messages (default none)\n"
    "  --line N           source line of the following messages (default 0)\n"
    "  --message TEXT     a message with the current error number, file and\n"
    "                     line; the first one creates the exception, later\n"
    "                     ones are appended to it. TEXT may hold $NAME$.\n"
    "  --arg NAME=VALUE   a named argument of the latest message\n"
    "  --append           starts a further exception, appended to the chain\n"
    "                     behind the ones before it\n"
    "\n"
    "  --hex              write hexadecimal text instead of raw bytes\n"
    "  --no-stack         write empty throw-location records\n"
    "  -o FILE            write to FILE\n"
    "\n"
    "The exceptions record no stack of their own: their throw-location\n"
    "section says that stack generation was suppressed.\n"
    "\n"
    "Example:\n"
    "  vrkexc encode --error 42 --file net.cpp --line 7 \\\n"
    "      --message 'Cannot reach $HOST$' --arg HOST=db1 \\\n"
    "      --append --error 11 --message 'Timed out' | vrkexc decode\n";

int usage(const char* what, const char* arg) {
    err() << "vrkexc encode: " << what;
    if (arg != nullptr)
        err() << " '" << arg << "'";
    err() << "\n\n" << HELP;
    return EXIT_USAGE;
}

bool parse_int(const char* s, int* v) {
    errno = 0;
    char* end = nullptr;
    const long n = std::strtol(s, &end, 0);
    if (errno != 0 || end == s || *end != '\0' || n < INT_MIN || n > INT_MAX)
        return false;
    *v = static_cast<int>(n);
    return true;
}

} // namespace

int cmd_encode(int argc, char** argv) {
    bool hex = false, no_stack = false;
    const char* path = nullptr;
    int err_no = 1, line = 0;
    const char* file = nullptr;
    // `head` is the chain; `cur` the exception being built, appended to the
    // chain when the next one starts.
    std::optional<vrk::exception> head, cur;
    // What a usage error leaves unwritten is not a forgotten exception.
    struct handled_on_exit {
        std::optional<vrk::exception>& a;
        std::optional<vrk::exception>& b;
        ~handled_on_exit() {
            if (a)
                a->mark_processed();
            if (b)
                b->mark_processed();
        }
    } handled{head, cur};
    bool append_pending = false;
    vrk::allocator& ma = tool_allocator();

    for (int i = 1; i < argc; ++i) {
        const char* opt = argv[i];
        const bool has_value = i + 1 < argc;
        if (std::strcmp(opt, "--help") == 0 || std::strcmp(opt, "-h") == 0) {
            out() << HELP;
            return 0;
        } else if (std::strcmp(opt, "--hex") == 0) {
            hex = true;
        } else if (std::strcmp(opt, "--no-stack") == 0) {
            no_stack = true;
        } else if (std::strcmp(opt, "--append") == 0) {
            if (!cur)
                return usage("--append before any --message", nullptr);
            append_pending = true;
        } else if (!has_value) {
            return usage("missing value or unknown option", opt);
        } else if (std::strcmp(opt, "-o") == 0) {
            path = argv[++i];
        } else if (std::strcmp(opt, "--error") == 0) {
            if (!parse_int(argv[++i], &err_no))
                return usage("bad error number", argv[i]);
        } else if (std::strcmp(opt, "--line") == 0) {
            if (!parse_int(argv[++i], &line))
                return usage("bad line number", argv[i]);
        } else if (std::strcmp(opt, "--file") == 0) {
            file = argv[++i];
        } else if (std::strcmp(opt, "--message") == 0) {
            const char* text = argv[++i];
            if (!cur || append_pending) {
                if (cur) {
                    if (!head)
                        head.emplace(*cur);
                    else
                        *head << *cur;
                }
                const vrk::error_code code{err_no, text, nullptr};
                cur.emplace(file, line, code, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
                append_pending = false;
            } else {
                cur->append_message(file, line, err_no, text);
            }
        } else if (std::strcmp(opt, "--arg") == 0) {
            const char* arg = argv[++i];
            const char* eq = std::strchr(arg, '=');
            if (!cur || append_pending)
                return usage("--arg before its --message", arg);
            if (eq == nullptr || eq == arg)
                return usage("expected NAME=VALUE, got", arg);
            vrk::string name(ma);
            name.append(arg, static_cast<size_t>(eq - arg));
            cur->define_argument(name.c_str(), eq + 1, false);
        } else {
            return usage("unknown option", opt);
        }
    }
    if (!cur)
        return usage("nothing to encode: give at least one --message", nullptr);
    if (append_pending)
        return usage("--append without a following --message", nullptr);
    if (head)
        *head << *cur;
    else
        head.emplace(*cur);
    cur.reset();

    try {
        vrk::osstream bytes(ma);
        head->serialize(bytes, no_stack);
        vrk::string data = bytes.str();

        int fd = 1;
        if (path != nullptr && std::strcmp(path, "-") != 0) {
            fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0) {
                err() << "vrkexc encode: cannot create " << path << ": " << std::strerror(errno)
                      << "\n";
                return EXIT_BAD_INPUT;
            }
        }
        {
            fd_streambuf buf(fd);
            vrk::ostream os(fd == 1 ? out().rdbuf() : &buf);
            if (hex)
                write_hex(os, data.data(), data.size());
            else
                os.write(data.data(), static_cast<vrk::streamsize>(data.size()));
            os.flush();
            if (!os.good()) {
                err() << "vrkexc encode: write failed\n";
                return EXIT_BAD_INPUT;
            }
        }
        if (fd != 1)
            ::close(fd);
    } catch (const std::bad_alloc&) {
        err() << "vrkexc encode: out of memory\n";
        return EXIT_BAD_INPUT;
    }
    return 0;
}

} // namespace vrkexc
