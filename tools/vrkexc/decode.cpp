// vrkexc decode: prints each serialized exception of its inputs, as text or
// as one JSON document.
#include <cstdlib>
#include <cstring>
#include <new>

#include "tool.hpp"
#include "vrk/exception.hpp"
#include "vrk/sstream.hpp"

namespace vrkexc {

namespace {

const char* const HELP =
    "usage: vrkexc decode [--short] [--no-stack] [--json] [FILE|-]...\n"
    "\n"
    "Reads serialized exceptions from each FILE (standard input when FILE is\n"
    "'-' or none is given) and prints each. An input is raw bytes, or text\n"
    "that spells them in hexadecimal: bare digits, 'xxd' dumps, 0x-prefixed\n"
    "or comma-separated bytes, or log lines that end in the digits (the time,\n"
    "level and source before them are skipped).\n"
    "\n"
    "  --short     one line per message instead of the long form\n"
    "  --no-stack  leave out the throw-location sections\n"
    "  --json      one JSON array of the exceptions: input, offset, type,\n"
    "              error, file, line, messages (error, file, line, failure,\n"
    "              text, arguments), stack, and the exceptions linked behind\n"
    "  --version   print the version\n"
    "\n"
    "Control characters in decoded texts are shown as \\xHH.\n"
    "\n"
    "Exit status: 0 when every exception decoded, 1 on bad input, 2 on a\n"
    "usage error.\n";

struct options {
    bool short_form = false;
    bool no_stack = false;
    bool json = false;
};

const char* input_name(const char* path) {
    return path == nullptr || std::strcmp(path, "-") == 0 ? "standard input" : path;
}

vrk::ostream& fault(const char* path) {
    out().flush();
    return err() << "vrkexc decode: " << input_name(path) << ": ";
}

// The value of the argument `name` on any message of `e`, or null.
const char* argument(const vrk::exception& e, const char* name) {
    for (const vrk::exception_node& node : e)
        for (const vrk::msg_parameter* p = node.first(); p != nullptr; p = p->p_next_)
            if (const char* v = p->get_value_by_name(name))
                return v;
    return nullptr;
}

void hex_word(vrk::ostream& os, const char* decimal) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    const unsigned long v = std::strtoul(decimal, nullptr, 10);
    char text[10] = {'0', 'x'};
    for (int i = 0; i < 8; ++i)
        text[2 + i] = DIGITS[(v >> (28 - 4 * i)) & 15];
    os.write(text, 10);
}

// Says where and why exception `index` (from byte `start`) did not decode.
// The reader stops right behind the word or length it rejects, unless the
// input ran out first.
void report_fault(const char* path, int index, long start, vrk::istream& in, size_t size,
                  const vrk::exception& bad) {
    const bool ran_out = in.fail();
    in.clear();
    const long at = ran_out ? static_cast<long>(size) : static_cast<long>(in.tellg()) - 4;
    vrk::ostream& os = fault(path);
    os << "exception " << index << " (from byte " << start << ") is not valid: ";
    const char* current = argument(bad, "CURRENT");
    const char* expect = argument(bad, "EXPECT");
    const char* length = argument(bad, "LENGTH");
    const char* limit = argument(bad, "LIMIT");
    if (ran_out)
        os << "the input ends at byte " << at;
    else
        os << "at byte " << at;
    if (current != nullptr && expect != nullptr) {
        os << ": found ";
        hex_word(os, current);
        os << ", expected ";
        hex_word(os, expect);
    } else if (length != nullptr && limit != nullptr) {
        os << ": a length of " << length << " bytes, over the limit of " << limit;
    } else if (length != nullptr) {
        os << ", inside a text of " << length << " bytes";
    }
    os << "\n";
    vrk::string text = bad.what(tool_allocator(), true);
    os.write(text.data(), static_cast<vrk::streamsize>(text.size()));
}

// An imported stack text prints exactly as it came; one that lacks its
// final line end would run into the next heading, so the tool adds it.
void end_stack_texts(const vrk::exception& e) {
    for (auto* d = const_cast<vrk::exception_data*>(e.data()); d != nullptr;
         d = const_cast<vrk::exception_data*>(d->next())) {
        const char* text = static_cast<const char*>(d->p_buff_);
        if (d->stack() || text == nullptr || d->buff_sz_ == 0 || text[d->buff_sz_ - 1] == '\n')
            continue;
        auto* ended = static_cast<char*>(d->p_ma_->allocate(d->buff_sz_ + 2));
        std::memcpy(ended, text, d->buff_sz_);
        ended[d->buff_sz_] = '\n';
        ended[d->buff_sz_ + 1] = '\0';
        d->p_ma_->deallocate(d->p_buff_);
        d->p_buff_ = ended;
        ++d->buff_sz_;
    }
}

void print_text(const vrk::exception& e, const options& opt) {
    vrk::allocator& ma = tool_allocator();
    end_stack_texts(e);
    if (opt.short_form) {
        const vrk::string text = e.what(ma, opt.no_stack);
        write_for_terminal(out(), text.data(), text.size());
        return;
    }
    vrk::osstream os(ma);
    e.print_default(os, opt.no_stack, opt.no_stack);
    vrk::string text(ma);
    os.swap(text);
    write_for_terminal(out(), text.data(), text.size());
}

// Decodes one input; `*json_items` counts the JSON objects written so far.
int decode_input(const char* path, const options& opt, int* json_items) {
    vrk::allocator& ma = tool_allocator();
    vrk::string input(ma);
    if (!read_input(path, input))
        return EXIT_BAD_INPUT;
    vrk::string bytes(ma);
    if (is_raw_input(input)) {
        bytes.swap(input);
    } else {
        text_position at{};
        if (!read_hex_text(input, bytes, &at)) {
            fault(path) << "line " << at.line << ", column " << at.column
                        << ": hexadecimal digits that do not make whole bytes\n";
            return EXIT_BAD_INPUT;
        }
    }
    if (bytes.empty()) {
        fault(path) << (input.empty() ? "the input is empty\n"
                                      : "no hexadecimal bytes in the text\n");
        return EXIT_BAD_INPUT;
    }

    vrk::isstream in(bytes.data(), bytes.size(), ma);
    for (int index = 1; in.rdbuf()->in_avail() > 0; ++index) {
        const auto start = static_cast<long>(in.tellg());
        try {
            auto e = vrk::exception::deserialize(in, ma);
            if (!e) {
                fault(path) << "a registered creator returned no exception\n";
                return EXIT_BAD_INPUT;
            }
            if (!opt.json) {
                print_text(*e, opt);
                continue;
            }
            const auto* type = reinterpret_cast<const unsigned char*>(bytes.data()) + start;
            out() << (*json_items == 0 ? "\n" : ",\n");
            ++*json_items;
            write_json_exception(out(), *e, input_name(path), start, type[2] << 8 | type[3]);
        } catch (const vrk::exception& bad) {
            report_fault(path, index, start, in, bytes.size(), bad);
            return EXIT_BAD_INPUT;
        }
    }
    return 0;
}

// True for an argument that names an input: anything not an option, and
// everything after "--".
bool is_path(char** argv, int i) {
    for (int k = 1; k < i; ++k)
        if (std::strcmp(argv[k], "--") == 0)
            return true;
    return std::strcmp(argv[i], "--") != 0 && (argv[i][0] != '-' || argv[i][1] == '\0');
}

} // namespace

int cmd_decode(int argc, char** argv) {
    options opt;
    int paths = 0;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (is_path(argv, i)) {
            ++paths;
        } else if (std::strcmp(arg, "--") == 0) {
            continue;
        } else if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
            out() << HELP;
            return 0;
        } else if (std::strcmp(arg, "--version") == 0) {
            out() << "vrkexc " << VERSION << "\n";
            return 0;
        } else if (std::strcmp(arg, "--short") == 0) {
            opt.short_form = true;
        } else if (std::strcmp(arg, "--no-stack") == 0) {
            opt.no_stack = true;
        } else if (std::strcmp(arg, "--json") == 0) {
            opt.json = true;
        } else {
            err() << "vrkexc decode: unexpected argument '" << arg << "'\n" << HELP;
            return EXIT_USAGE;
        }
    }

    if (opt.json && opt.short_form) {
        err() << "vrkexc decode: --json and --short exclude each other\n" << HELP;
        return EXIT_USAGE;
    }

    int status = 0;
    int json_items = 0;
    if (opt.json)
        out() << '[';
    try {
        // A fault is said before the next input's output.
        if (paths == 0)
            status = decode_input(nullptr, opt, &json_items);
        for (int i = 1; i < argc; ++i) {
            if (is_path(argv, i) && decode_input(argv[i], opt, &json_items) != 0)
                status = EXIT_BAD_INPUT;
            err().flush();
        }
    } catch (const std::bad_alloc&) {
        out().flush();
        err() << "vrkexc decode: out of memory\n";
        status = EXIT_BAD_INPUT;
    }
    if (opt.json)
        out() << "\n]\n";
    return status;
}

} // namespace vrkexc
