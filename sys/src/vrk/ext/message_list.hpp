// vrk/ext/message_list.hpp: the message record of an exception node and its
// list of named parameters.
//
// A message record owns its parameter list; its text lies directly behind it
// in the same allocation. Nothing here throws: parameters are allocated
// without throwing and a failure is left for the caller to record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vrk/memory.hpp"

namespace vrk {

// One named parameter: a single allocation holding the record and, from
// `value_` on, its zero-terminated value text.
struct msg_parameter {
    msg_parameter* p_next_;
    const char* name_;
    uint32_t name_len_;
    uint32_t val_size_;
    bool force_;
    union {
        void* align_;
        char value_[1];
    };

    // Returns a whole list, from `first` along `p_next_`, to `alloc`.
    static void destroy(msg_parameter* first, allocator& alloc) noexcept;
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

    const char* message() const noexcept { return reinterpret_cast<const char*>(this + 1); }
    size_t msg_length() const noexcept { return length_; }
    const msg_parameter* first() const noexcept { return prm_first_; }

private:
    char* text_() noexcept { return reinterpret_cast<char*>(this + 1); }

    msg_parameter* prm_first_;
    msg_parameter* prm_last_;
    size_t length_;
};

} // namespace vrk
