// Internal header, reached through vrk/exception.hpp; include that instead.
// vrk/base/impl/exception_data.hpp: the shared data block of an exception
// and its message nodes.
//
// One raw allocation per exception holds an alignment gap (0-15 bytes), the
// 16-byte aligned block with its embedded first node, and the first message
// text padded to 8 bytes. Appended nodes and the stack buffer are separate
// allocations from the block's allocator. Nothing here throws: allocation
// failures are recorded as a code in the node.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vrk/base/faultprot_cstring.hpp"
#include "vrk/ext/message_list.hpp"
#include "vrk/ext/pointer_counter_combination.hpp"
#include "vrk/iosfwd.hpp"
#include "vrk/memory.hpp"

namespace vrk {

class exception;
struct exception_data;

// One message record of an exception.
class exception_node {
public:
    // Failure codes of `bad_alloc_`, stored by plain assignment, never
    // combined. 1 to 3 mean memory ran out: the node takes no further
    // parameters and nothing is appended behind it.
    static constexpr int PARAM_FAILED = 1;
    static constexpr int STACK_FAILED = 2;
    static constexpr int MESSAGE_FAILED = 3;
    static constexpr int STACK_SUPPRESS = 4;
    static constexpr int STACK_ERROR = 8;

    // Size of an appended node with a text of `msg_len` characters behind it.
    static size_t allocation_size(size_t msg_len) noexcept {
        return sizeof(exception_node) + message_node::text_size(msg_len);
    }

    // The message text (empty, never null).
    const char* message() const noexcept {
        if (msg_owner_)
            return msg_param_.message();
        return align_ != nullptr ? align_ : "";
    }
    faultprot_cstring file() const noexcept { return file_; }
    int line() const noexcept { return line_; }
    int error_no() const noexcept { return err_no_; }
    int bad_alloc() const noexcept { return bad_alloc_; }
    const exception_node* next() const noexcept { return p_next_; }
    const msg_parameter* first() const noexcept {
        return msg_owner_ ? msg_param_.first() : nullptr;
    }
    // True when memory ran out on this node (codes 1 to 3).
    bool out_of_memory() const noexcept { return (bad_alloc_ & 3) != 0; }

    // The message with its placeholders replaced, to a stream (returned) or
    // into `buffer` (returns the characters stored, at most `buf_size`; a
    // terminator follows them when there is room). A borrowed text is
    // written as it is; a null one writes nothing.
    ostream& expand(ostream& stream) const;
    size_t expand(char* buffer, size_t buf_size) const noexcept;

    // A node with a copy of `msg` (`len` characters; null for an empty text)
    // behind it and the host's form of `fname`.
    void init_(const char* fname, int line, int err_no, const char* msg, size_t len) noexcept;
    // A node that owns `fname` (allocated from the block's allocator) and has
    // no message yet.
    void init_(char* fname, int line, int err_no) noexcept;

private:
    friend class exception;

    // Adds a parameter (copies of name and value); records PARAM_FAILED when
    // it cannot be allocated. Dropped when memory already ran out on this
    // node or the node has a borrowed text.
    void new_param_(allocator& ma, const char* name, const char* val_str, bool force) noexcept;
    void expand_(msg_parameter::out_ifc& out_stream) const;

public:
    exception_node* p_next_;
    faultprot_cstring file_;
    int line_;
    int err_no_;
    int bad_alloc_;
    bool file_owner_;
    bool msg_owner_;
    union {
        const char* align_;
        message_node msg_param_;
    };
};

// The shared, reference-counted block behind every copy of an exception.
struct exception_data {
    // Bit layout of `flags_`: done_ (the processed flag) in bit 0, stack_ in
    // bit 1, offset_ in bits 2-7, the rest unused. The word is read and
    // written only through relaxed atomic operations, because inspections on
    // different threads set the processed flag of one shared block.
    static constexpr uint32_t DONE_BIT = 1u << 0;
    static constexpr uint32_t STACK_BIT = 1u << 1;
    static constexpr unsigned OFFSET_SHIFT = 2;
    static constexpr uint32_t OFFSET_MASK = 0x3fu << OFFSET_SHIFT;

    static constexpr unsigned STACK_FRAMES = 32;
    static constexpr size_t STACK_BUFFER_SIZE = STACK_FRAMES * sizeof(void*);

    using pc_type = pointer_counter_combination<volatile exception_data>;

    // Size of one exception allocation for a first message of `msg_len`.
    static size_t allocation_size(size_t msg_len) noexcept {
        return sizeof(exception_data) + 15 + message_node::text_size(msg_len);
    }

    // Initialises a block for a new exception; captures the stack from
    // `caller` unless it is `exception::CALLER_SUPPRESS_STACK_TRACE`.
    void init(allocator* p_ma, uint8_t offset, const char* fname, int line, int err_no,
              const char* msg, size_t len, const void* caller) noexcept;
    // Initialises a block being read back from bytes: it owns `fname`, has
    // no message and no raw stack.
    void init(allocator* p_ma, uint8_t offset, char* fname, int line, int err_no) noexcept;

    // Releases the block and everything it owns; leaves the chain alone.
    static void destroy(volatile exception_data* ptr) noexcept;

    // Shared-state operations, all through the 128-bit word. The count
    // changes read the word and write the new counter under one hold of the
    // slot lock: a compare-and-swap that cannot fail, so two threads copying
    // one exception never retry. Inline: they are the whole cost of a copy.
    void increment() volatile noexcept {
        pc_.add_count(1);
        clear_done();
    }
    // True when this was the last reference to a block nobody links to.
    bool decrement() volatile noexcept {
        const atomic_dword_t old = pc_.add_count(~uint64_t{0});
        return old.lo == 0 && old.hi - 1 == 0;
    }
    bool lock_chain() volatile noexcept;
    void update_pred(volatile exception_data* p_pred) volatile noexcept;
    bool unlink_pred() volatile noexcept;

    // Flag word accessors.
    bool done() const volatile noexcept { return flags_() & DONE_BIT; }
    bool stack() const volatile noexcept { return flags_() & STACK_BIT; }
    uint8_t offset() const volatile noexcept {
        return static_cast<uint8_t>((flags_() & OFFSET_MASK) >> OFFSET_SHIFT);
    }
    // The processed flag: a relaxed load and store, the same instructions
    // as a plain read-modify-write. A lost update between threads only
    // decides whether the host hears of a forgotten exception; the other bits
    // of the word never change after init.
    void set_done() volatile noexcept {
        const uint32_t w = flags_();
        if (!(w & DONE_BIT))
            __atomic_store_n(&flags_word_, w | DONE_BIT, __ATOMIC_RELAXED);
    }
    void clear_done() volatile noexcept {
        const uint32_t w = flags_();
        if (w & DONE_BIT)
            __atomic_store_n(&flags_word_, w & ~DONE_BIT, __ATOMIC_RELAXED);
    }

    // The successor in the chain (acquire: its contents were written before
    // it was linked).
    volatile exception_data* next() const volatile noexcept {
        return __atomic_load_n(&p_next_, __ATOMIC_ACQUIRE);
    }
    // The last node of the node list.
    exception_node* last_node() volatile noexcept;

    volatile exception_data* p_next_;
    allocator* p_ma_;
    volatile pc_type pc_;
    int32_t err_no_;
    uint32_t buff_sz_;
    uint32_t flags_word_;
    void* p_buff_;
    exception_node node_;

private:
    uint32_t flags_() const volatile noexcept {
        return __atomic_load_n(&flags_word_, __ATOMIC_RELAXED);
    }
};

static_assert(offsetof(exception_data, pc_) % 16 == 0, "the shared word needs 16-byte alignment");
static_assert(alignof(exception_data) == 16);
static_assert(sizeof(exception_data) % 16 == 0);
static_assert(sizeof(exception_node) % 8 == 0, "node text starts 8-byte aligned");

// The predecessor value of a block that is being linked.
inline volatile exception_data* const PREV_LINK_LOCK =
    reinterpret_cast<volatile exception_data*>(uintptr_t{1});

} // namespace vrk
