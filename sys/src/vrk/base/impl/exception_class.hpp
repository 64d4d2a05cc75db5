// Internal header: include vrk/exception.hpp. The vrk::exception class and
// the library's derived error classes, for the argument types and the
// streams, which need the class but not what builds on it.
//
// A `vrk::exception` is a small handle: the message chain, named arguments,
// throw location and links to appended exceptions live in a shared,
// reference-counted data block, which copies share. Building, copying,
// inspecting and releasing an exception never throws: allocations are
// no-throw and a failure degrades into a recorded code or a fallback text.
// Throw sites build the exception with file and line, append messages and
// arguments, call `register_on_thread()` and then the virtual `do_throw()`.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vrk/auto_ptr.hpp"
#include "vrk/base/faultprot_cstring.hpp"
#include "vrk/base/impl/exception_data.hpp"
#include "vrk/error_registry.hpp"
#include "vrk/ext/noncopyable.hpp"
#include "vrk/import.hpp"
#include "vrk/iosfwd.hpp"
#include "vrk/memory.hpp"
#include "vrk/string.hpp"

namespace vrk {

template <class T> class auto_object;

// Forward iterator over the message nodes of one exception.
class message_iterator {
public:
    message_iterator() noexcept = default;
    explicit message_iterator(const exception_node* node) noexcept : p_node_(node) {}

    const exception_node& operator*() const noexcept { return *p_node_; }
    const exception_node* operator->() const noexcept { return p_node_; }
    message_iterator& operator++() noexcept {
        p_node_ = p_node_->next();
        return *this;
    }
    message_iterator operator++(int) noexcept {
        message_iterator old = *this;
        p_node_ = p_node_->next();
        return old;
    }
    friend bool operator==(const message_iterator& a, const message_iterator& b) noexcept {
        return a.p_node_ == b.p_node_;
    }

private:
    const exception_node* p_node_ = nullptr;
};

namespace Impl {
// Policies of the printer: what precedes each message's text. The long form
// writes a heading line with the exception's index in the chain, error
// number, file and line, then indents the text; the short form writes one
// line per message.
struct LongPrefix {
    void print(ostream& os, message_iterator itr, int idx) const;
};
struct ShortPrefix {
    void print(ostream& os, message_iterator itr, int idx) const;
};
} // namespace Impl

class exception {
public:
    // Passed as `caller` to ask for no stack capture.
    static inline const void* const CALLER_SUPPRESS_STACK_TRACE =
        reinterpret_cast<const void*>(~uintptr_t{0});

    using print_function = void (*)(const exception&, ostream&);

    // From the default allocator. `caller` is the code address at which the
    // stack capture starts; without it, the code that called the constructor.
    exception(const char* fname, int line, const error_code& error, const void* caller) noexcept;
    exception(const char* fname, int line, const error_code& error) noexcept;
    exception(const exception& a) noexcept;
    exception& operator=(const exception& a) noexcept;

    virtual ~exception();
    // The first message of the exception; never null, never allocates.
    virtual const char* what() const noexcept;
    // Registers this object on the calling thread and throws a copy of it.
    virtual void do_throw();

    // A sharing copy of this object, of the base class and not registered,
    // built in `exc`'s storage after destroying what `exc` held.
    exception* copy(auto_object<exception>& exc) const noexcept;

    int error_no() const noexcept;
    faultprot_cstring file() const noexcept;
    int line() const noexcept;
    bool is_identified_by(const error_code& e) const noexcept;

    // Equal only when both have a block and it is the same block.
    bool operator==(const exception& other) const noexcept;
    bool operator!=(const exception& other) const noexcept { return !(*this == other); }

    // Iteration over the message nodes; `begin` marks the exception processed.
    message_iterator begin() const noexcept;
    static message_iterator end() noexcept { return message_iterator(); }

    // The next exception of the chain (sharing its block), or an empty
    // exception at the end. Marks this one processed.
    exception get_next() const noexcept;

    // Appends `a`'s chain behind the last exception of this chain. Does
    // nothing when either has no block, both share one, `a` already belongs
    // to a chain or is being reported as forgotten (its block goes when the
    // report ends), or `a`'s chain already contains this exception (which
    // would close a loop). Links are made under one process-wide lock. `a`
    // leaves the thread's registration list in every case except `a` being
    // this object.
    void append_exp(const exception& a) noexcept;

    void mark_processed() const noexcept;
    // True while the processed flag is clear; false without a block.
    bool is_processed() const noexcept;
    // Reports the exception to the host as caught, then marks it processed.
    void dump() const;

    // Registration on the calling thread's list of live exceptions.
    void register_on_thread() const noexcept;
    void unregister_on_thread() const noexcept;
    const exception* get_next_registered() const noexcept;
    static const exception* get_first_registered() noexcept;

    // Appends a further message behind the last node (text copied).
    void append_message(const char* fname, int line, int err_no, const char* msg) noexcept;
    // Attaches a named argument (value copied) to the latest message.
    void define_argument(const char* name, const char* val_str, bool force) noexcept;
    // The value of the first argument of that name on the first message of
    // this exception or of the exceptions appended to it; "" when none.
    const char* get_msgarg_by_name(const char* name) const noexcept;

    // The whole chain as text, one line per message (the short form), on
    // `alloc`; `suppress_stack` leaves out every throw-location section.
    string_retval what(allocator& alloc, bool suppress_stack) const noexcept;

    // The long form, or the print hook's output when one is set.
    void print(ostream& os) const;
    // The long form, never the hook.
    void print_default(ostream& os, bool suppress_stack, bool suppress_nested_stack) const;

    // Number of recorded frames; stores the frame array in *p_st when asked.
    int stack_trace(void*** p_st) const noexcept;

    // The optional print hook used by `print` in place of the long form.
    void set_print_function(print_function f) noexcept { f_print_ = f; }
    print_function get_print_function() const noexcept { return f_print_; }

    // Read-only view of the shared block, null without one; for diagnostics
    // and tests.
    const volatile exception_data* data() const noexcept { return p_fst_; }

    // --- Serialization ------------------------------------------------------
    // A serialized exception is a type header (the type word, then what the
    // class's store_type writes) followed by the body: big-endian u32 words,
    // node records, one stack text per exception of the chain.
public:
    // Upper bits of every type word; the type number is the lower 16 bits.
    static constexpr uint32_t TYPE_MARK = 0xFACE0000u;
    // The class-specific part of the base class's header.
    static constexpr uint32_t DEFAULT_TYPE_CHECK = 0xFACADE01u;
    // Longest file name, message or stack text the reader accepts (16 MiB);
    // longer lengths are taken as hostile and rejected before allocating,
    // and the writer fails its stream rather than write one.
    static constexpr uint32_t MAX_WIRE_TEXT = 16u << 20;

    // Writes the type header and the body of this exception and its chain;
    // marks every block processed. Does not flush or check the stream. A
    // text that cannot be written whole (its scratch memory failed, or it is
    // longer than MAX_WIRE_TEXT) sets badbit instead: check `out` afterwards.
    void serialize(ostream& out, bool suppress_stack) const;
    // Reads one serialized exception; the object comes from `alloc`, its
    // blocks from the default allocator. Bad input raises runtime_error and
    // hands out nothing.
    static auto_ptr<exception, default_deleter> deserialize(istream& inp, allocator& alloc);

protected:
    static void write_int(ostream& out, uint32_t value);
    // A short read yields zeros for the missing bytes.
    static uint32_t read_int(istream& inp);

private:
    static auto_ptr<exception, default_deleter> default_creator(istream& inp, allocator& alloc);
    void deflate(ostream& out, bool suppress_stack) const;
    void inflate(istream& inp);
    void inflate_badalloc_(istream& inp, const void* caller);
    // --- end of serialization -----------------------------------------------

protected:
    exception(const char* fname, int line, int err_no, const char* msg,
              const void* caller) noexcept;
    explicit exception(volatile exception_data* ptr) noexcept;

    virtual void store_type(ostream& os) const;

    // Supplied by the host; exported as the hooks of vrk/import.hpp are.
    [[gnu::visibility("default")]] static allocator& default_allocator();

    // Registers, clears the processed flag; the first half of every do_throw.
    void prepare_throw_() noexcept;
    // The whole of every do_throw: prepare_throw_, then throw a copy of this
    // object as a `Self`, the class whose do_throw it is.
    template <class Self> [[noreturn]] void throw_as_() {
        prepare_throw_();
        throw static_cast<Self&>(*this);
    }

private:
    template <class T> friend class auto_object;
    struct sharing_copy_tag {};

    // A sharing copy that leaves the registration where it is.
    exception(const exception& a, sharing_copy_tag) noexcept;
    exception(allocator& alloc, const char* fname, int line, const error_code& error,
              const void* caller) noexcept;
    exception() noexcept;

    void init_(allocator& alloc, const char* fname, int line, int err_no, const char* msg,
               const void* caller) noexcept;
    void init_(const exception& a) noexcept;
    void swap_(exception& e) noexcept;
    // Gives up this handle's reference; the chain goes when it was the last.
    void release_() noexcept {
        if (p_fst_ != nullptr && p_fst_->decrement())
            release_chain_();
    }
    void release_chain_() noexcept;
    // A copy and a destruction are two count changes and nothing else unless
    // the handle is registered: inline, with the rest out of line.
    bool registered_() const noexcept { return reinterpret_cast<uintptr_t>(p_next_reg_) != 1; }
    void take_registration_(const exception& a) noexcept;
    exception_data* block_() const noexcept { return const_cast<exception_data*>(p_fst_); }

    template <class Prefix>
    void print_(ostream& os, const Prefix& pref, bool suppress_stack,
                bool suppress_nested_stack) const;
    // The throw-location section of this exception.
    void print_stack(ostream& os) const;

    bool register_on_thread_() const noexcept;
    vrk_extern::unhandled* unregister_on_thread_() const noexcept;

    volatile exception_data* p_fst_;
    mutable const exception* p_next_reg_;
    exception_node* p_lst_;
    faultprot_cstring file_;
    int line_;
    int err_no_;
    print_function f_print_;
};

inline exception::exception(const exception& a) noexcept
    : p_fst_(a.p_fst_), p_next_reg_(reinterpret_cast<const exception*>(uintptr_t{1})),
      p_lst_(a.p_lst_), file_(a.file_), line_(a.line_), err_no_(a.err_no_), f_print_(a.f_print_) {
    if (p_fst_ != nullptr)
        p_fst_->increment();
    // The registration follows the copy: this is how the object thrown by
    // do_throw stays registered while the original is destroyed.
    if (a.registered_())
        take_registration_(a);
}

inline exception::~exception() {
    if (registered_())
        unregister_on_thread();
    p_lst_ = nullptr;
    release_();
}

// Appends `add_exp` to `exp`'s chain; returns `exp`.
exception& operator<<(exception& exp, const exception& add_exp) noexcept;

// Prints `e` with `print`; returns `os`.
ostream& operator<<(ostream& os, const exception& e);

// The library's derived error classes. Each can be built from an error code,
// or from a message text with the class's own registry number. All but
// logic_error throw themselves with their own type.
#define VRK_DERIVED_EXCEPTION_CONSTRUCTORS(NAME)                                                   \
public:                                                                                            \
    NAME(const char* fname, int line, const error_code& error, const void* caller)                 \
    noexcept : exception(fname, line, error.err_no_, error.err_text_, caller) {}                   \
    NAME(const char* fname, int line, const error_code& error) noexcept;                           \
    NAME(const char* fname, int line, const char* msg, const void* caller) noexcept;               \
                                                                                                   \
protected:                                                                                         \
    explicit NAME(volatile exception_data* ptr) noexcept : exception(ptr) {}                       \
                                                                                                   \
public:

class runtime_error : public exception {
    VRK_DERIVED_EXCEPTION_CONSTRUCTORS(runtime_error)
    void do_throw() override;
};

class logic_error : public exception {
    VRK_DERIVED_EXCEPTION_CONSTRUCTORS(logic_error)
};

class overflow_error : public exception {
    VRK_DERIVED_EXCEPTION_CONSTRUCTORS(overflow_error)
    void do_throw() override;
};

class underflow_error : public exception {
    VRK_DERIVED_EXCEPTION_CONSTRUCTORS(underflow_error)
    void do_throw() override;
};

class rvalue_error : public exception {
    VRK_DERIVED_EXCEPTION_CONSTRUCTORS(rvalue_error)
    void do_throw() override;
};

namespace impl {

class throw_check_base : private non_copyable {
public:
    // Ends the process through the host: a do_throw returned.
    [[noreturn]] static void throw_returned() noexcept;
};

// Throws an exception through its own virtual do_throw, so the thrown object
// keeps its class, and treats a return from it as a broken invariant. For a
// class that is not a vrk::exception, a copy of the object is thrown as it is.
template <class T> class throw_check : public throw_check_base {
public:
    explicit throw_check(const T& e) noexcept : p_exp_(const_cast<T*>(&e)) {}

    [[noreturn]] void do_throw() {
        doThrow_(p_exp_);
        throw_returned();
    }

private:
    static void doThrow_(exception* e) { e->do_throw(); }
    static void doThrow_(void* e) { throw *static_cast<T*>(e); }

    T* const p_exp_;
};

} // namespace impl
} // namespace vrk
