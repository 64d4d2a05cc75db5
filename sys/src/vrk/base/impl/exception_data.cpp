// The shared data block: initialisation, release, and the operations on its
// 128-bit predecessor-and-count word.
#include "vrk/base/impl/exception_data.hpp"

#include <new>

#include "vrk/base/impl/exception_source.hpp"
#include "vrk/exception.hpp"
#include "vrk/import.hpp"

namespace vrk {

static_assert(offsetof(exception_data, node_) + sizeof(exception_node) == sizeof(exception_data),
              "the first message text lies directly behind the block");
static_assert(offsetof(exception_node, msg_param_) + sizeof(message_node) == sizeof(exception_node),
              "a node's text lies directly behind its message record");

// ---------------------------------------------------------------------------
// Nodes

void exception_node::init_(const char* fname, int line, int err_no, const char* msg,
                           size_t len) noexcept {
    p_next_ = nullptr;
    line_ = line;
    err_no_ = err_no;
    bad_alloc_ = 0;
    align_ = nullptr;
    file_ = vrk_extern::import::stdFileName(fname);
    file_owner_ = false; // the host's string is never freed
    msg_owner_ = true;
    msg_param_.init(msg, msg != nullptr ? len : 0);
}

void exception_node::init_(char* fname, int line, int err_no) noexcept {
    p_next_ = nullptr;
    file_ = fname;
    line_ = line;
    err_no_ = err_no;
    bad_alloc_ = 0;
    file_owner_ = true;
    msg_owner_ = false;
    align_ = nullptr;
}

// ---------------------------------------------------------------------------
// Blocks

// Not inlined: the stack buffer is requested in the name of init's caller.
__attribute__((noinline)) void exception_data::init(allocator* p_ma, uint8_t offset,
                                                    const char* fname, int line, int err_no,
                                                    const char* msg, size_t len,
                                                    const void* caller) noexcept {
    p_next_ = nullptr;
    p_ma_ = p_ma;
    pc_.store(nullptr, 1);
    err_no_ = err_no;
    buff_sz_ = 0;
    p_buff_ = nullptr;
    flags_word_ = STACK_BIT | (uint32_t{offset} << OFFSET_SHIFT);
    node_.init_(fname, line, err_no, msg, len);

    if (caller == exception::CALLER_SUPPRESS_STACK_TRACE) {
        node_.bad_alloc_ = exception_node::STACK_SUPPRESS;
        return;
    }
    void* buffer = p_ma->allocateNoThrow(STACK_BUFFER_SIZE, __builtin_return_address(0));
    if (buffer == nullptr) {
        node_.bad_alloc_ = exception_node::STACK_FAILED;
        return;
    }
    p_buff_ = buffer;
    buff_sz_ =
        vrk_extern::import::save_stack_trace(static_cast<void**>(buffer), STACK_FRAMES, caller);
    if (buff_sz_ == 0) {
        p_ma->deallocate(buffer);
        p_buff_ = nullptr;
        node_.bad_alloc_ = exception_node::STACK_ERROR;
    }
}

void exception_data::init(allocator* p_ma, uint8_t offset, char* fname, int line,
                          int err_no) noexcept {
    p_next_ = nullptr;
    p_ma_ = p_ma;
    pc_.store(nullptr, 1);
    err_no_ = err_no;
    buff_sz_ = 0;
    p_buff_ = nullptr;
    flags_word_ = uint32_t{offset} << OFFSET_SHIFT;
    node_.init_(fname, line, err_no);
}

void exception_data::destroy(volatile exception_data* ptr) noexcept {
    exception_data* block = const_cast<exception_data*>(ptr);
    allocator* ma = block->p_ma_;
    exception_node* node = &block->node_;
    while (node != nullptr) {
        exception_node* next = node->p_next_;
        if (node->msg_owner_) {
            node->msg_param_.destroy(*ma);
            node->align_ = nullptr;
            node->msg_owner_ = false;
        }
        if (node->file_owner_) {
            ma->deallocate(const_cast<char*>(node->file_.get()));
            node->file_.set(nullptr);
            node->file_owner_ = false;
        }
        if (node != &block->node_)
            ma->deallocate(node);
        node = next;
    }
    if (block->p_buff_ != nullptr)
        ma->deallocate(block->p_buff_);
    ma->deallocate(reinterpret_cast<char*>(block) - block->offset());
}

exception_node* exception_data::last_node() volatile noexcept {
    exception_node* node = &const_cast<exception_data*>(this)->node_;
    while (node->p_next_ != nullptr)
        node = node->p_next_;
    return node;
}

// ---------------------------------------------------------------------------
// The shared word. Every update reads the word, computes the new value and
// compare-and-swaps; after a failure it goes on from the value found. The
// count changes do all three under one hold of the slot lock; where the value
// read decides whether to swap at all, the read takes the slot lock; where
// only the swap decides, a lock-free peek is the first guess.

namespace {
inline uint64_t ptr_word(const volatile exception_data* p) { return reinterpret_cast<uint64_t>(p); }
} // namespace

bool exception_data::lock_chain() volatile noexcept {
    atomic_dword_t old = pc_.read();
    atomic_dword_t prev;
    for (;;) {
        if (old.lo != 0)
            return false;
        if (pc_.cas(old, atomic_dword_t{ptr_word(PREV_LINK_LOCK), old.hi}, prev))
            return true;
        old = prev;
    }
}

void exception_data::update_pred(volatile exception_data* p_pred) volatile noexcept {
    atomic_dword_t old = pc_.read();
    if (old.lo != ptr_word(PREV_LINK_LOCK))
        vrk_extern::import::abort(impl::EXCEPTION_SOURCE_FILE, __LINE__,
                                  "Unexpected link, aborting: ", static_cast<long>(old.lo));
    atomic_dword_t prev;
    while (!pc_.cas(old, atomic_dword_t{ptr_word(p_pred), old.hi}, prev)) {
        if (prev.lo != ptr_word(PREV_LINK_LOCK))
            vrk_extern::import::abort(impl::EXCEPTION_SOURCE_FILE, __LINE__,
                                      "Unexpected link, aborting: ", static_cast<long>(prev.lo));
        old = prev;
    }
}

bool exception_data::unlink_pred() volatile noexcept {
    atomic_dword_t old = pc_.peek();
    atomic_dword_t prev;
    while (!pc_.cas(old, atomic_dword_t{0, old.hi}, prev))
        old = prev;
    return old.hi == 0;
}

} // namespace vrk
