// vrkexc symbolize: names the frames of a trace printed by the default host
// on this or another machine, from each frame's module and module offset.
#include <dirent.h>
#include <link.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "tool.hpp"
#include "vrk/exception.hpp"
#include "vrk/host/frame_names.hpp"

namespace vrkexc {

namespace {

const char* const HELP =
    "usage: vrkexc symbolize [-e BINARY]... [FILE|-]\n"
    "\n"
    "Reads a trace as an exception prints it or 'vrkexc decode' writes it,\n"
    "from FILE (standard input when FILE is '-' or missing), and writes it\n"
    "again with each frame named from its module and offset, as in\n"
    "'#1  0x000055d4c8a0b1c4 (app+0x11c4)'. A module is looked up among the\n"
    "BINARY files by name, then among the libraries this tool has loaded, then\n"
    "in the library directories and the PATH of this machine. Source files and\n"
    "lines are written when the tool was built with debug-information support\n"
    "and the binary has them. Other lines pass unchanged.\n"
    "\n"
    "  -e BINARY  the file of a module (the program, a library); repeatable\n"
    "\n"
    "Exit status: 0 when the input was read, 1 when it could not be, 2 on a\n"
    "usage error.\n";

const char* base_name(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool same_name(const char* name, size_t len, const char* path) {
    const char* base = base_name(path);
    return std::strlen(base) == len && std::memcmp(base, name, len) == 0;
}

// One frame line: "<prefix>#<index> 0x<address> ... (<module>+0x<offset>)...".
struct frame_line {
    size_t prefix_; // characters before '#'
    unsigned index_;
    uint64_t address_;
    const char* p_module_;
    size_t module_len_;
    uint64_t offset_;
};

// Reads hexadecimal digits at `p` (at most 16); the end of them, or null
// when there are none.
const char* read_hex(const char* p, const char* end, uint64_t& value) {
    value = 0;
    const char* start = p;
    for (; p < end && p - start < 16; ++p) {
        const char c = *p;
        const int d = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
        if (d < 0)
            break;
        value = value << 4 | static_cast<uint64_t>(d);
    }
    return p != start ? p : nullptr;
}

// The frame line whose '#' is at `hash`. Its module and offset are the last
// "(name+0xhex)" on it; the offset follows the last '+', as a module name may
// hold one ("libstdc++.so.6").
bool parse_at(const char* line, const char* hash, const char* end, frame_line& f) {
    f.prefix_ = static_cast<size_t>(hash - line);
    const char* p = hash + 1;
    f.index_ = 0;
    const char* digits = p;
    for (; p < end && *p >= '0' && *p <= '9' && p - digits < 9; ++p)
        f.index_ = f.index_ * 10 + static_cast<unsigned>(*p - '0');
    if (p == digits || p == end || *p != ' ')
        return false;
    while (p < end && *p == ' ')
        ++p;
    if (end - p < 3 || p[0] != '0' || p[1] != 'x' || read_hex(p + 2, end, f.address_) == nullptr)
        return false;
    for (const char* open = end; open-- > p;) {
        if (*open != '(')
            continue;
        const char* close = open + 1;
        while (close < end && *close != ')' && *close != ' ' && *close != '(')
            ++close;
        if (close == end || *close != ')')
            continue;
        const char* plus = close - 1;
        while (plus > open + 1 && *plus != '+')
            --plus;
        if (plus == open + 1 || close - plus < 4 || plus[1] != '0' || plus[2] != 'x' ||
            read_hex(plus + 3, close, f.offset_) != close)
            continue;
        f.p_module_ = open + 1;
        f.module_len_ = static_cast<size_t>(plus - f.p_module_);
        return true;
    }
    return false;
}

// The frame starts at the first '#' that opens one: a log prefix may hold
// others ("[conn #7] #0  0x...").
bool parse(const char* line, const char* end, frame_line& f) {
    for (const char* hash = line;
         (hash = static_cast<const char*>(std::memchr(hash, '#', end - hash))) != nullptr; ++hash)
        if (parse_at(line, hash, end, f))
            return true;
    return false;
}

// Where to look for a module by name on this machine.
const char* const LIBRARY_DIRS[] = {"/lib/x86_64-linux-gnu",
                                    "/usr/lib/x86_64-linux-gnu",
                                    "/lib64",
                                    "/usr/lib64",
                                    "/usr/local/lib",
                                    "/lib",
                                    "/usr/lib"};

struct loaded_search {
    const char* p_name_;
    size_t len_;
    vrk::string* p_found_;
};

int find_loaded(dl_phdr_info* info, size_t, void* arg) {
    auto* s = static_cast<loaded_search*>(arg);
    if (info->dlpi_name == nullptr || info->dlpi_name[0] != '/' ||
        !same_name(s->p_name_, s->len_, info->dlpi_name))
        return 0;
    s->p_found_->assign(info->dlpi_name);
    return 1;
}

bool exists_in(const char* dir, size_t dir_len, const char* name, size_t len, vrk::string& path) {
    path.assign(dir, dir_len);
    path.append("/", 1);
    path.append(name, len);
    return ::access(path.c_str(), R_OK) == 0;
}

// The file of module `name`: a binary of the command line, a library loaded
// in this tool, or a file of that name in a library directory or the PATH.
bool find_module(const char* name, size_t len, char** binaries, int nbinaries, vrk::string& path) {
    for (int i = 0; i < nbinaries; ++i)
        if (same_name(name, len, binaries[i])) {
            path.assign(binaries[i]);
            return true;
        }
    loaded_search search{name, len, &path};
    if (dl_iterate_phdr(find_loaded, &search) != 0)
        return true;
    for (const char* dir : LIBRARY_DIRS)
        if (exists_in(dir, std::strlen(dir), name, len, path))
            return true;
    const char* dirs = std::getenv("PATH");
    while (dirs != nullptr && *dirs != 0) {
        const char* colon = std::strchr(dirs, ':');
        const size_t dir_len =
            colon != nullptr ? static_cast<size_t>(colon - dirs) : std::strlen(dirs);
        if (dir_len != 0 && exists_in(dirs, dir_len, name, len, path))
            return true;
        dirs = colon != nullptr ? colon + 1 : nullptr;
    }
    return false;
}

} // namespace

int cmd_symbolize(int argc, char** argv) {
    const char* path = nullptr;
    // The -e arguments, gathered in place at the front of argv.
    char** binaries = argv + 1;
    int nbinaries = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            out() << HELP;
            return 0;
        }
        if (std::strcmp(argv[i], "-e") == 0 && i + 1 < argc) {
            binaries[nbinaries++] = argv[++i];
        } else if (path == nullptr && (argv[i][0] != '-' || argv[i][1] == '\0')) {
            path = argv[i];
        } else {
            err() << "vrkexc symbolize: unexpected argument '" << argv[i] << "'\n" << HELP;
            return EXIT_USAGE;
        }
    }

    vrk::allocator& ma = tool_allocator();
    try {
        vrk::string input(ma);
        if (!read_input(path, input))
            return EXIT_BAD_INPUT;
        vrk::string module_path(ma);
        vrk::host::frame_names names;
        const vrk::string& text = input;
        const char* const end = text.data() + text.size();
        for (const char* line = text.data(); line < end;) {
            const char* eol = static_cast<const char*>(std::memchr(line, '\n', end - line));
            const char* next = eol != nullptr ? eol + 1 : end;
            if (eol == nullptr)
                eol = end;
            if (eol != line && eol[-1] == '\r') // a rewritten line keeps its CR LF
                --eol;
            frame_line f{};
            if (parse(line, eol, f) && f.offset_ != 0 &&
                find_module(f.p_module_, f.module_len_, binaries, nbinaries, module_path)) {
                vrk::host::frame_info info = names.resolve_in_file(module_path.c_str(), f.offset_);
                if (info.p_function_ != nullptr || info.p_file_ != nullptr) {
                    // The module as the trace names it, not as the file found is named.
                    vrk::string module(f.p_module_, f.module_len_, ma);
                    info.p_module_ = module.c_str();
                    out().write(line, static_cast<vrk::streamsize>(f.prefix_));
                    vrk::host::write_frame(out(), f.index_, f.address_, info);
                    out().write(eol, next - eol);
                    line = next;
                    continue;
                }
            }
            out().write(line, next - line);
            line = next;
        }
        return 0;
    } catch (const vrk::exception& e) {
        out().flush();
        err() << "vrkexc symbolize: " << e << "\n";
        return EXIT_BAD_INPUT;
    }
}

} // namespace vrkexc
