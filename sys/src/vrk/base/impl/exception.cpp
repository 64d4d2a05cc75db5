// The exception handle: creation, copying, assignment, release with the
// forgotten-exception report, throwing, accessors, chains and messages.
#include "vrk/exception.hpp"

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <typeinfo>

#include "vrk/base/impl/exception_source.hpp"
#include "vrk/ext/auto_object.hpp"

namespace vrk {

namespace {
// Every link between chains is made under this one lock, with the loop check
// before it. Without it two threads appending two chains into each other at
// the same moment both pass the check and close a loop. Appends are rare (one
// per rethrow with a cause), so the price is one uncontended lock per append,
// and concurrent appends anywhere in the process wait for each other; copies,
// releases and walks never take it. Slot locks are taken under it, never the
// other way round, and nothing under it calls out.
std::mutex g_link_lock;

// Where recently extended chains end, so that appending to a long chain does
// not walk it again: an entry (first, last) says that `last` was the last
// block behind `first` when it was written. While `first` lives the blocks
// behind it stay linked and its chain grows only at the end, so `last` is
// still in that chain and the search goes on from there; every block's
// release clears its own entry before its memory can come back as another
// block. Entries are written under the link lock; the release reads and
// clears `first_` without it.
//
// Entries come in sets of eight, chosen by a multiplicative hash of the
// block's address: blocks made one after another lie at equal distances,
// which a plain remainder maps onto a fraction of the entries, and chains
// growing in turn would evict each other at every append and walk from the
// start each time. A set's first blocks share one cache line, the one a
// release reads. A chain that finds no entry takes the free one or the one
// extended longest ago, and enters as the oldest: when more chains than a
// set holds grow in turn, the newcomers take turns in one entry and the
// others keep theirs, where taking the oldest place each time would make
// every append miss. Every eighth newcomer enters as the newest, so that
// entries of chains that stopped growing give way. An append whose chain
// has no entry walks from the start, as without the table.
constexpr size_t LAST_BLOCK_WAYS = 8;
struct alignas(64) last_block_set {
    std::atomic<const volatile exception_data*> first_[LAST_BLOCK_WAYS] = {};
    volatile exception_data* last_[LAST_BLOCK_WAYS] = {};
    uint64_t extended_[LAST_BLOCK_WAYS] = {}; // append counts, larger is newer
};
constexpr unsigned LAST_BLOCK_SET_BITS = 5;
last_block_set g_last_blocks[1u << LAST_BLOCK_SET_BITS];
uint64_t g_appends = 0;   // under the link lock
uint64_t g_newcomers = 0; // under the link lock

last_block_set& last_block_set_of(const volatile exception_data* block) noexcept {
    // Blocks are 16-byte aligned: the low four bits say nothing.
    const uint64_t key = reinterpret_cast<uintptr_t>(block) >> 4;
    return g_last_blocks[(key * 0x9E3779B97F4A7C15u) >> (64 - LAST_BLOCK_SET_BITS)];
}

// The way of `first` in its set, or LAST_BLOCK_WAYS; under the link lock.
size_t last_block_way(const last_block_set& set, const volatile exception_data* first) noexcept {
    size_t way = 0;
    while (way < LAST_BLOCK_WAYS && set.first_[way].load(std::memory_order_relaxed) != first)
        ++way;
    return way;
}

// The last block of the chain behind `first`, which the caller holds; under
// the link lock.
volatile exception_data* last_block(volatile exception_data* first) noexcept {
    const last_block_set& set = last_block_set_of(first);
    const size_t way = last_block_way(set, first);
    volatile exception_data* last = way < LAST_BLOCK_WAYS ? set.last_[way] : first;
    while (volatile exception_data* next = last->next())
        last = next;
    return last;
}

// Records that the chain behind `first` now ends at `last`; under the link
// lock.
void remember_last_block(volatile exception_data* first, volatile exception_data* last) noexcept {
    last_block_set& set = last_block_set_of(first);
    size_t way = last_block_way(set, first);
    uint64_t extended = ++g_appends;
    if (way == LAST_BLOCK_WAYS) {
        // A released block's entry is free: the oldest of all.
        const auto age = [&set](size_t w) {
            return set.first_[w].load(std::memory_order_relaxed) == nullptr ? 0 : set.extended_[w];
        };
        way = 0;
        for (size_t w = 1; w < LAST_BLOCK_WAYS; ++w)
            if (age(w) < age(way))
                way = w;
        // Age 1, not a free entry's 0: the next newcomer takes a free entry
        // before this one. Live entries are 1 or more.
        if (++g_newcomers % 8 != 0)
            extended = std::max<uint64_t>(age(way), 1);
    }
    set.last_[way] = last;
    set.extended_[way] = extended;
    set.first_[way].store(first, std::memory_order_relaxed);
}

void forget_last_block(const volatile exception_data* released) noexcept {
    last_block_set& set = last_block_set_of(released);
    for (std::atomic<const volatile exception_data*>& first : set.first_) {
        const volatile exception_data* expected = released;
        if (first.load(std::memory_order_relaxed) == released)
            first.compare_exchange_strong(expected, nullptr, std::memory_order_relaxed);
    }
}
const exception* const NOT_REGISTERED = reinterpret_cast<const exception*>(uintptr_t{1});
const char* const UNDEFINED_FILE_NAME = "UNDEFINED FILE NAME";
} // namespace

// ---------------------------------------------------------------------------
// Construction

exception::exception(allocator& alloc, const char* fname, int line, const error_code& error,
                     const void* caller) noexcept
    : p_next_reg_(NOT_REGISTERED), file_(nullptr), f_print_(nullptr) {
    init_(alloc, fname, line, error.err_no_, error.err_text_, caller);
}

exception::exception(const char* fname, int line, const error_code& error,
                     const void* caller) noexcept
    : p_next_reg_(NOT_REGISTERED), file_(nullptr), f_print_(nullptr) {
    init_(default_allocator(), fname, line, error.err_no_, error.err_text_, caller);
}

// Not inlined: the throw location starts where this constructor returns to.
__attribute__((noinline))
exception::exception(const char* fname, int line, const error_code& error) noexcept
    : p_next_reg_(NOT_REGISTERED), file_(nullptr), f_print_(nullptr) {
    init_(default_allocator(), fname, line, error.err_no_, error.err_text_,
          __builtin_return_address(0));
}

exception::exception(const char* fname, int line, int err_no, const char* msg,
                     const void* caller) noexcept
    : p_next_reg_(NOT_REGISTERED), file_(nullptr), f_print_(nullptr) {
    init_(default_allocator(), fname, line, err_no, msg, caller);
}

exception::exception(volatile exception_data* ptr) noexcept
    : p_fst_(ptr), p_next_reg_(NOT_REGISTERED), p_lst_(nullptr), file_(UNDEFINED_FILE_NAME),
      line_(-1), err_no_(-2), f_print_(nullptr) {
    if (ptr == nullptr)
        return;
    ptr->increment();
    exception_data* block = block_();
    err_no_ = block->err_no_;
    line_ = block->node_.line_;
    if (block->node_.file_.get() != nullptr)
        file_ = block->node_.file_;
    p_lst_ = ptr->last_node();
}

// The empty exception: no block, not registered.
exception::exception() noexcept : exception(static_cast<volatile exception_data*>(nullptr)) {}

void exception::take_registration_(const exception& a) noexcept {
    register_on_thread_();
    a.unregister_on_thread();
}

exception::exception(const exception& a, sharing_copy_tag) noexcept : p_next_reg_(NOT_REGISTERED) {
    init_(a);
}

void exception::init_(allocator& alloc, const char* fname, int line, int err_no, const char* msg,
                      const void* caller) noexcept {
    const size_t len = msg != nullptr ? std::strlen(msg) : 0;
    const size_t size = exception_data::allocation_size(len);
    // Kept in the object before allocating, so they survive its failure.
    file_ = vrk_extern::import::stdFileName(fname);
    line_ = line;
    err_no_ = err_no;
    void* raw = alloc.allocateNoThrow(size, caller);
    if (raw == nullptr) {
        p_fst_ = nullptr;
        p_lst_ = nullptr;
        return;
    }
    const auto offset = static_cast<uint8_t>((16 - reinterpret_cast<uintptr_t>(raw) % 16) % 16);
    auto* block = ::new (static_cast<char*>(raw) + offset) exception_data;
    block->init(&alloc, offset, fname, line, err_no, msg, len, caller);
    p_fst_ = block;
    p_lst_ = &block->node_;
}

void exception::init_(const exception& a) noexcept {
    p_fst_ = a.p_fst_;
    p_lst_ = a.p_lst_;
    f_print_ = a.f_print_;
    file_ = a.file_;
    line_ = a.line_;
    err_no_ = a.err_no_;
    p_next_reg_ = NOT_REGISTERED;
    if (p_fst_ != nullptr)
        p_fst_->increment();
}

void exception::swap_(exception& e) noexcept {
    std::swap(p_fst_, e.p_fst_);
    std::swap(p_lst_, e.p_lst_);
    std::swap(f_print_, e.f_print_);
    std::swap(file_, e.file_);
    std::swap(line_, e.line_);
    std::swap(err_no_, e.err_no_);
}

exception& exception::operator=(const exception& a) noexcept {
    if (&a == this)
        return *this;
    exception old(a); // takes over a's registration, ends it when destroyed
    swap_(old);
    // An exception overwritten by assignment is never reported as forgotten.
    if (old.p_fst_ != nullptr)
        old.p_fst_->set_done();
    return *this;
}

// ---------------------------------------------------------------------------
// Release

void exception::release_chain_() noexcept {
    volatile exception_data* block = p_fst_;
    if (!block->done()) {
        // The host may copy the exception and extend the copy: give the
        // copies the last node to append behind (the destructor cleared it).
        // The block goes when the hook returns whatever copies were made, so
        // it must not end up in a chain that outlives the hook: while the
        // hook runs the block reads as being linked, which refuses any append
        // of it (as for a block that already belongs to a chain) and keeps
        // the copies' releases from finding it dead a second time.
        p_lst_ = block->last_node();
        block->pc_.store(PREV_LINK_LOCK, 1);
        vrk_extern::import::forgotten_exception(*this);
        p_lst_ = nullptr;
    }
    // Release this block and every following one that nobody else holds.
    for (;;) {
        volatile exception_data* next = block->next();
        forget_last_block(block);
        exception_data::destroy(block);
        if (next == nullptr || !next->unlink_pred())
            break;
        block = next;
    }
    p_fst_ = nullptr;
}

exception* exception::copy(auto_object<exception>& exc) const noexcept {
    // Copying the held object into its own holder: emplacing destroys it
    // first, so the copy is taken from a temporary that keeps the block.
    if (exc.get() == this) {
        const exception keep(*this, sharing_copy_tag{});
        return exc.emplace<exception>(keep, sharing_copy_tag{});
    }
    return exc.emplace<exception>(*this, sharing_copy_tag{});
}

// ---------------------------------------------------------------------------
// Throwing

void exception::prepare_throw_() noexcept {
    register_on_thread_();
    if (p_fst_ != nullptr)
        p_fst_->clear_done();
}

void exception::do_throw() {
    // Every do_throw of the library's classes is this one body.
    throw_as_<exception>();
}

void* impl::allocate_thrown_(size_t size) noexcept { return abi::__cxa_allocate_exception(size); }

void impl::throw_allocated_(void* thrown, const std::type_info& type, void (*destroy)(void*)) {
    abi::__cxa_throw(thrown, const_cast<std::type_info*>(&type), destroy);
}

void impl::throw_check_base::throw_returned() noexcept {
    vrk_extern::import::abort(impl::EXCEPTION_SOURCE_FILE, __LINE__,
                              "Throwing an exception returned, aborting");
}

// ---------------------------------------------------------------------------
// Accessors

int exception::error_no() const noexcept { return p_fst_ != nullptr ? p_fst_->err_no_ : err_no_; }

faultprot_cstring exception::file() const noexcept {
    if (p_fst_ != nullptr && block_()->node_.file_.get() != nullptr)
        return block_()->node_.file_;
    return file_;
}

int exception::line() const noexcept { return p_fst_ != nullptr ? block_()->node_.line_ : line_; }

bool exception::is_identified_by(const error_code& e) const noexcept {
    return error_no() == e.err_no_;
}

bool exception::operator==(const exception& other) const noexcept {
    return p_fst_ != nullptr && p_fst_ == other.p_fst_;
}

message_iterator exception::begin() const noexcept {
    if (p_fst_ == nullptr)
        return end();
    p_fst_->set_done();
    return message_iterator(&block_()->node_);
}

exception exception::get_next() const noexcept {
    if (p_fst_ == nullptr)
        return exception(static_cast<volatile exception_data*>(nullptr));
    p_fst_->set_done();
    return exception(p_fst_->next());
}

void exception::mark_processed() const noexcept {
    if (p_fst_ != nullptr)
        p_fst_->set_done();
}

// True while nobody has looked at the exception. Nothing in the facility
// reads it; it tells a caller whether the exception still counts as news.
bool exception::is_processed() const noexcept { return p_fst_ != nullptr && !p_fst_->done(); }

void exception::dump() const {
    vrk_extern::import::caught_exception(*this);
    mark_processed();
}

// ---------------------------------------------------------------------------
// Chains

void exception::append_exp(const exception& a) noexcept {
    if (&a == this)
        return;
    // An appended exception is no longer a pending exception of its own.
    a.unregister_on_thread();
    if (p_fst_ == nullptr || a.p_fst_ == nullptr || p_fst_ == a.p_fst_)
        return;
    const std::lock_guard<std::mutex> hold(g_link_lock);
    // Appending a chain that already holds this block would close a loop
    // that nothing ever releases: refuse it. Both blocks are held, so the
    // chains behind them stay linked, and under the link lock neither grows:
    // they end in the same block exactly when one lies in the other's chain.
    // If this block lies behind `a`'s, that is the loop; if `a`'s lies behind
    // this one, it has a predecessor and the claim below refuses it anyway.
    volatile exception_data* const last = last_block(p_fst_);
    volatile exception_data* const a_last = last_block(a.p_fst_);
    if (last == a_last || !a.p_fst_->lock_chain())
        return;
    // The link lock keeps every other writer off the last block's link: a
    // release store publishes it to the walkers, which read it with acquire.
    __atomic_store_n(&last->p_next_, a.p_fst_, __ATOMIC_RELEASE);
    a.p_fst_->update_pred(last);
    remember_last_block(p_fst_, a_last);
    p_fst_->clear_done();
    // No separate fence: the link was published by a release store and the
    // predecessor word by a release of its slot lock, which order every
    // earlier store for the threads that read them.
}

exception& operator<<(exception& exp, const exception& add_exp) noexcept {
    exp.append_exp(add_exp);
    return exp;
}

// ---------------------------------------------------------------------------
// Messages

// Not inlined: the allocator is told who asked, the code this returns to.
__attribute__((noinline)) void exception::append_message(const char* fname, int line, int err_no,
                                                         const char* msg) noexcept {
    if (p_fst_ == nullptr || p_lst_->out_of_memory())
        return;
    p_fst_->clear_done();
    const size_t len = msg != nullptr ? std::strlen(msg) : 0;
    void* raw = p_fst_->p_ma_->allocateNoThrow(exception_node::allocation_size(len),
                                               __builtin_return_address(0));
    if (raw == nullptr) {
        p_lst_->bad_alloc_ = exception_node::MESSAGE_FAILED;
        return;
    }
    auto* node = ::new (raw) exception_node;
    node->init_(fname, line, err_no, msg, len);
    // Take over the last node's successor: nodes another copy appended
    // behind it stay in the list.
    node->p_next_ = p_lst_->p_next_;
    p_lst_->p_next_ = node;
    p_lst_ = node;
}

// ---------------------------------------------------------------------------
// Derived error classes

#define VRK_DEFINE_DERIVED_EXCEPTION(NAME, CODE)                                                   \
    __attribute__((noinline))                                                                      \
    NAME::NAME(const char* fname, int line, const error_code& error) noexcept                      \
        : exception(fname, line, error.err_no_, error.err_text_, __builtin_return_address(0)) {}   \
    NAME::NAME(const char* fname, int line, const char* msg, const void* caller) noexcept          \
        : exception(fname, line, CODE.number(), msg, caller) {}

VRK_DEFINE_DERIVED_EXCEPTION(runtime_error, ERR_VRK_RUNTIME)
VRK_DEFINE_DERIVED_EXCEPTION(logic_error, ERR_VRK_LOGIC)
VRK_DEFINE_DERIVED_EXCEPTION(overflow_error, ERR_VRK_OVERFLOW)
VRK_DEFINE_DERIVED_EXCEPTION(underflow_error, ERR_VRK_UNDERFLOW)
VRK_DEFINE_DERIVED_EXCEPTION(rvalue_error, ERR_VRK_RVALUE)

void runtime_error::do_throw() { throw_as_<runtime_error>(); }
void overflow_error::do_throw() { throw_as_<overflow_error>(); }
void underflow_error::do_throw() { throw_as_<underflow_error>(); }
void rvalue_error::do_throw() { throw_as_<rvalue_error>(); }

} // namespace vrk
