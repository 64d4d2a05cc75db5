// A decoded exception as a JSON object, for programs that read decode's
// output.
#include <cstring>

#include "tool.hpp"
#include "vrk/exception.hpp"

namespace vrkexc {

namespace {

// The argument list at `text[at]` ('['), ` [NAME=value, OTHER=value]` as
// printing writes the arguments a message text does not mention, with
// `\\` `\]` `\,` `\n` `\r` inside values: calls `each(name, name_len,
// value, value_len)` for each entry (the value still escaped) and returns
// true when the list is well formed and ends the text. Stops calling `each`
// at the first fault.
template <class Each> bool parse_list(const char* text, size_t len, size_t at, Each each) {
    size_t i = at + 1;
    for (;;) {
        const size_t name = i;
        while (i < len && text[i] != '=' && text[i] != ',' && text[i] != ']' && text[i] != '\\')
            ++i;
        if (i == name || i >= len || text[i] != '=')
            return false;
        const size_t value = ++i;
        while (i < len && text[i] != ',' && text[i] != ']')
            i += text[i] == '\\' && i + 1 < len ? 2 : 1;
        if (i >= len)
            return false;
        if (!each(text + name, value - 1 - name, text + value, i - value))
            return false;
        if (text[i] == ']')
            return i + 1 == len;
        if (i + 1 >= len || text[i + 1] != ' ')
            return false;
        i += 2;
    }
}

// Where the argument list of a message text starts, `len` when it has none.
size_t list_start(const char* text, size_t len) {
    if (len == 0 || text[len - 1] != ']')
        return len;
    for (size_t at = 0; at < len; ++at) {
        if (text[at] != '[' || (at != 0 && text[at - 1] != ' '))
            continue;
        if (parse_list(text, len, at,
                       [](const char*, size_t, const char*, size_t) { return true; }))
            return at;
    }
    return len;
}

void write_unescaped(vrk::ostream& os, const char* value, size_t len, vrk::allocator& ma) {
    vrk::string plain(ma);
    for (size_t i = 0; i < len; ++i) {
        char c = value[i];
        if (c == '\\' && i + 1 < len) {
            c = value[++i];
            c = c == 'n' ? '\n' : c == 'r' ? '\r' : c;
        }
        plain.push_back(c);
    }
    write_json_string(os, plain.data(), plain.size());
}

void write_text_field(vrk::ostream& os, const char* key, const char* text) {
    os << ",\"" << key << "\":";
    if (text == nullptr)
        os << "null";
    else
        write_json_string(os, text, std::strlen(text));
}

void write_message(vrk::ostream& os, const vrk::exception_node& node, vrk::allocator& ma) {
    os << "{\"error\":" << node.error_no();
    write_text_field(os, "file", node.file().get());
    os << ",\"line\":" << node.line() << ",\"failure\":" << node.bad_alloc();
    const char* text = node.message();
    const size_t len = std::strlen(text);
    write_text_field(os, "text", text);
    os << ",\"arguments\":{";
    const size_t at = list_start(text, len);
    bool first = true;
    if (at != len)
        parse_list(text, len, at,
                   [&](const char* name, size_t name_len, const char* value, size_t value_len) {
                       if (!first)
                           os << ',';
                       first = false;
                       write_json_string(os, name, name_len);
                       os << ':';
                       write_unescaped(os, value, value_len, ma);
                       return true;
                   });
    os << "}}";
}

// One exception of a chain, without its successors.
void write_one(vrk::ostream& os, const vrk::exception& e, vrk::allocator& ma) {
    os << "\"error\":" << e.error_no();
    write_text_field(os, "file", e.file().get());
    os << ",\"line\":" << e.line() << ",\"messages\":[";
    bool first = true;
    for (const vrk::exception_node& node : e) {
        if (!first)
            os << ',';
        first = false;
        write_message(os, node, ma);
    }
    os << "],\"stack\":";
    const auto* d = const_cast<const vrk::exception_data*>(e.data());
    if (d != nullptr && !d->stack() && d->p_buff_ != nullptr)
        write_json_string(os, static_cast<const char*>(d->p_buff_), d->buff_sz_);
    else
        os << "null";
}

} // namespace

void write_json_exception(vrk::ostream& os, const vrk::exception& e, const char* input, long offset,
                          unsigned type) {
    vrk::allocator& ma = tool_allocator();
    os << "{\"input\":";
    write_json_string(os, input, std::strlen(input));
    os << ",\"offset\":" << offset << ",\"type\":" << type << ',';
    write_one(os, e, ma);
    os << ",\"linked\":[";
    bool first = true;
    for (vrk::exception x = e.get_next(); x.data() != nullptr; x = x.get_next()) {
        os << (first ? "{" : ",{");
        first = false;
        write_one(os, x, ma);
        x.mark_processed();
        os << '}';
    }
    os << "]}";
    e.mark_processed();
}

} // namespace vrkexc
