// vrk/ext/message_list.hpp: the message record of an exception node, its
// list of named parameters, and the expansion of `$NAME$` placeholders.
//
// A message record owns its parameter list; its text lies directly behind it
// in the same allocation. Nothing here throws or locks: parameters are
// allocated without throwing and a failure is left for the caller to record.
// Expansion never allocates.
//
// Expansion rules, chosen for whoever reads the result in a log:
//  - `$NAME$` is replaced by the value of the parameter named NAME. Names are
//    compared exactly (case matters); an empty name `$$` never matches.
//  - A placeholder whose name has no parameter stays visible as written,
//    `$NAME$` with its delimiters, so the reader sees what was missing.
//    Scanning resumes at its closing `$`, which may open the next
//    placeholder: "costs $5 or $PRICE$" still expands PRICE.
//  - A `$` with no closing `$` behind it is written as it stands.
//  - Of several parameters with one name, the latest replacement (`force_`
//    true) is used; without a replacement, the first definition wins.
//  - Parameters the text does not mention are not lost: each such name is
//    handed once, with the value the rules above select and in the order of
//    its first definition, to the sink's `remainder`, and the list is closed
//    by one `remainder` call with a null name. Both sinks of this header
//    render them behind the message as ` [NAME=value, OTHER=value]` (no
//    blank before `[` when the text came out empty), and keep the list on
//    the message's line, so that the short form stays one line per message:
//     - a value that is the printed form of an exception (an argument made
//       from an exception) is written as its first message the way the
//       short form writes it, then ` (+N more)` when N further messages
//       follow; the whole form stays what a placeholder expands to;
//     - line ends that close a value are dropped, and `\` `]` `,` CR LF
//       inside a value are written `\\` `\]` `\,` `\r` `\n`, so that the
//       unescaped `, ` and `]` always separate and close the list and a
//       reader can take it apart again.
//  - A message without placeholders and parameters comes out unchanged.
// Expansion marks nothing in the records: copies of one exception may be
// printed on several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vrk/ext/noncopyable.hpp"
#include "vrk/iosfwd.hpp"
#include "vrk/memory.hpp"

namespace vrk {

class exception;

// One named parameter: a single allocation holding the record and, from
// `value_` on, its zero-terminated value text followed by a zero-terminated
// copy of the name. `name_` points at that copy, so a name built in a
// temporary buffer is safe. `val_size_` is the length of the value text,
// terminator not counted.
struct msg_parameter {
    // The sink of an expanded message.
    class out_ifc : private non_copyable {
    public:
        virtual ~out_ifc() = default;
        // Appends `len` characters; false when not all of them were taken.
        virtual bool write(const char* text, size_t len) = 0;
        // One parameter the text does not mention (`name`, `value` with
        // their lengths), or, with a null `name`, the end of that list. The
        // default renders the list described at the top through `write`.
        virtual bool remainder(const char* name, uint32_t name_len, const char* value,
                               uint32_t val_len);

    protected:
        out_ifc() noexcept = default;

    private:
        friend struct msg_parameter;
        bool write_value_(const char* value, size_t len);
        bool write_escaped_(const char* text, size_t len);

        bool remainder_open_ = false;
        bool text_empty_ = false; // the message text wrote nothing
    };

    msg_parameter* p_next_;
    const char* name_;
    uint32_t name_len_;
    uint32_t val_size_;
    bool force_;
    union {
        void* align_;
        char value_[1];
    };

    // Bytes needed for a record with a name of `name_len` and a value of
    // `val_len` characters, both with their terminators.
    static size_t allocation_size(size_t name_len, size_t val_len) noexcept;

    // Fills a record allocated with allocation_size(strlen(name), size):
    // copies `size` characters of `value` (none when null) and the name,
    // leaves `p_next_` null.
    void init(const char* name, const char* value, uint32_t size, bool force) noexcept;
    // The same with the length of `name` already known.
    void init_(const char* name, size_t name_len, const char* value, uint32_t size,
               bool force) noexcept;

    // Returns a whole list, from `first` along `p_next_`, to `alloc`.
    static void destroy(msg_parameter* first, allocator& alloc) noexcept;

    // The value text if this parameter is named `name`, else null.
    const char* get_value_by_name(const char* name) const noexcept;

    // Writes `len` characters of `text` to `out`, substituting the parameters
    // from `*first` to `*last` (both null for an empty list) by the rules at
    // the top of this header. The results of `out` are not looked at.
    static void expand(const char* text, size_t len, out_ifc& out, msg_parameter** first,
                       msg_parameter** last);

    const char* value() const noexcept { return value_; }
};

// Sink that writes to a stream.
class msg_write_stream : public msg_parameter::out_ifc {
public:
    explicit msg_write_stream(ostream& os) noexcept : os_(os) {}
    // False once the stream has gone bad.
    bool write(const char* text, size_t len) override;

private:
    ostream& os_;
};

// Sink that stores into the caller's buffer, never more than `size`
// characters. Whenever fewer than `size` characters are stored a zero byte
// follows them, so a buffer with room to spare holds a terminated text; a
// buffer filled to the last place has no terminator. What does not fit is
// dropped and `write` returns false.
class msg_byte_stream : public msg_parameter::out_ifc {
public:
    msg_byte_stream(char* buffer, size_t size) noexcept;
    bool write(const char* text, size_t len) noexcept override;
    // Characters stored so far, terminator not counted.
    size_t size() const noexcept { return used_; }

private:
    char* p_buffer_;
    size_t capacity_;
    size_t used_ = 0;
};

// The message record of a node: parameter list and text length. The text
// itself follows the record, `length_` characters and a zero byte.
class message_node {
public:
    // Bytes needed for the record plus a text of `len` characters with its
    // terminator, padded to a multiple of 8.
    static size_t allocation_size(size_t len) noexcept {
        return sizeof(message_node) + text_size(len);
    }
    // Bytes reserved for a text of `len` characters: len + 1 rounded up to 8.
    static size_t text_size(size_t len) noexcept { return (len + 1 + 7) & ~size_t{7}; }

    // Empties the parameter list, sets the length, copies `len` characters of
    // `text` (when not null) behind the record and terminates them; returns
    // the text area, for the caller to fill when `text` is null.
    char* init(const char* text, size_t len) noexcept;

    // Returns the parameter list to `alloc`.
    void destroy(allocator& alloc) noexcept;

    // Appends a parameter with a copy of `name` and of `value` (a null value
    // is stored as the empty text). One no-throw allocation from `ma`; false
    // when it fails (or the value is longer than 4 GiB), the list unchanged.
    bool new_param(allocator& ma, const char* name, const char* value, bool force) noexcept;

    const char* message() const noexcept { return reinterpret_cast<const char*>(this + 1); }
    size_t msg_length() const noexcept { return length_; }
    const msg_parameter* first() const noexcept { return prm_first_; }

    // The value the expansion uses for `$name$` (latest replacement, else the
    // first definition), or null when no parameter has that name.
    const char* get_param_value_by_name(const char* name) const noexcept;

    // The text with its placeholders replaced, to a sink, a buffer (returns
    // the characters stored) or a stream (returns it).
    void expand(msg_parameter::out_ifc& out) const;
    size_t expand(char* buf, size_t size) const noexcept;
    ostream& expand(ostream& os) const;

private:
    char* text_() noexcept { return reinterpret_cast<char*>(this + 1); }

    msg_parameter* prm_first_;
    msg_parameter* prm_last_;
    size_t length_;
};

// A message to append to an exception, built at the throw site. Keeps only
// the pointer to the text; appending copies it.
struct error_message {
    // Stores the host's form of `fname` (vrk_extern::import::stdFileName).
    error_message(const char* fname, int line, int err_no, const char* msg) noexcept;

    const char* const file_;
    const int line_;
    const int err_no_;
    const char* const format_;
};

// Appends `mdescr` as a further message of `exp`; returns `exp`.
exception& operator<<(exception& exp, const error_message& mdescr) noexcept;

} // namespace vrk
