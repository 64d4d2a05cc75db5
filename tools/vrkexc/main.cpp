// vrkexc: decodes serialized vrk exceptions, makes test input, and shows the
// exception facility at work.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "fd_streambuf.hpp"
#include "tool.hpp"
#include "vrk/ext/heap_allocator.hpp"

namespace vrkexc {

namespace {

using vrk::heap_allocator;

const char* const USAGE = "usage: vrkexc COMMAND [OPTIONS]\n"
                          "\n"
                          "Commands:\n"
                          "  decode [--short] [--no-stack] [--json] [FILE|-]...\n"
                          "      Print serialized exceptions (raw bytes, hex dumps, log lines).\n"
                          "  encode [--hex] [--no-stack] [-o FILE] MESSAGE-OPTIONS...\n"
                          "      Build an exception from the command line and write its bytes.\n"
                          "  symbolize [-e BINARY]... [FILE|-]\n"
                          "      Name the frames of a printed trace from their module offsets.\n"
                          "  demo\n"
                          "      Throw, print, serialize and decode a chained exception.\n"
                          "\n"
                          "'vrkexc COMMAND --help' describes a command; 'vrkexc --version' names\n"
                          "the version.\n";

} // namespace

vrk::allocator& tool_allocator() noexcept {
    static heap_allocator heap;
    return heap;
}

vrk::ostream& out() {
    static fd_streambuf buf(1);
    static vrk::ostream os(&buf);
    return os;
}

vrk::ostream& err() {
    static fd_streambuf buf(2);
    static vrk::ostream os(&buf);
    return os;
}

bool read_input(const char* path, vrk::string& data) {
    const bool stdin_input = path == nullptr || std::strcmp(path, "-") == 0;
    const char* name = stdin_input ? "standard input" : path;
    const int fd = stdin_input ? 0 : ::open(path, O_RDONLY);
    if (fd < 0) {
        out().flush();
        err() << "vrkexc: cannot open " << name << ": " << std::strerror(errno) << "\n";
        err().flush();
        return false;
    }
    char chunk[4096];
    ssize_t got = 0;
    while ((got = ::read(fd, chunk, sizeof chunk)) != 0) {
        if (got > 0) {
            data.append(chunk, static_cast<size_t>(got));
        } else if (errno != EINTR) {
            // A directory opens but does not read: say so, not "empty".
            const int error = errno;
            out().flush();
            err() << "vrkexc: cannot read " << name << ": " << std::strerror(error) << "\n";
            err().flush();
            break;
        }
    }
    if (!stdin_input)
        ::close(fd);
    return got == 0;
}

} // namespace vrkexc

int main(int argc, char** argv) {
    using namespace vrkexc;
    int status = EXIT_USAGE;
    if (argc < 2) {
        err() << USAGE;
    } else if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ||
               std::strcmp(argv[1], "help") == 0) {
        out() << USAGE;
        status = 0;
    } else if (std::strcmp(argv[1], "--version") == 0) {
        out() << "vrkexc " << VERSION << "\n";
        status = 0;
    } else if (std::strcmp(argv[1], "decode") == 0) {
        status = cmd_decode(argc - 1, argv + 1);
    } else if (std::strcmp(argv[1], "encode") == 0) {
        status = cmd_encode(argc - 1, argv + 1);
    } else if (std::strcmp(argv[1], "symbolize") == 0) {
        status = cmd_symbolize(argc - 1, argv + 1);
    } else if (std::strcmp(argv[1], "demo") == 0) {
        status = cmd_demo(argc - 1, argv + 1);
    } else {
        err() << "vrkexc: unknown command '" << argv[1] << "'\n" << USAGE;
    }
    out().flush();
    if (!out().good() && status == 0) {
        err() << "vrkexc: cannot write the output\n";
        status = EXIT_BAD_INPUT;
    }
    err().flush();
    return status;
}
