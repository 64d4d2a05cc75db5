// Serialization of an exception chain: the type header, the body writer
// (deflate) and the hardened body reader (inflate).
//
// The reader takes its input as untrusted. No length read from the stream
// makes it allocate more than MAX_WIRE_TEXT + 1 bytes, and a text longer
// than the input that remains is never allocated for in full: texts longer
// than DIRECT_READ are read into a buffer that grows only as bytes arrive.
// Every error leaves nothing allocated behind and hands out no half-built
// exception.
#include <cstring>
#include <new>

#include "vrk/base/impl/exception_source.hpp"
#include "vrk/exception.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/istream.hpp"
#include "vrk/ostream.hpp"
#include "vrk/sstream.hpp"

namespace vrk {

namespace {

constexpr uint32_t REGULAR_NODE = 0xADDDEED2u;
constexpr uint32_t BADALLOC_NODE = 0xDEFACED2u;
constexpr uint32_t REGNODE_END = 0xADDEDCABu;

// Texts up to this length are allocated at their final size at once; longer
// ones grow with the input, so a short hostile stream costs at most this.
constexpr size_t DIRECT_READ = 64 * 1024;

const char* const BAD_PATTERN_TEXT =
    "Exception deserialization. Bad data pattern: $CURRENT$, expected: $EXPECT$";
const char* const BAD_LENGTH_TEXT =
    "Exception deserialization. Bad length: $LENGTH$, limit: $LIMIT$";
const char* const TRUNCATED_TEXT =
    "Exception deserialization. Input ends inside a text: $LENGTH$ bytes expected, $READ$ read";
const char* const IMPORTED_BAD_ALLOC_TEXT = "Bad allocation in exception object (imported)";

// Raises a runtime_error located in the caller of the function that found
// the fault, with `text` and two unsigned arguments in decimal.
[[noreturn]] __attribute__((noinline)) void
throw_deserialize_error_(int line, const void* caller, const char* text, const char* name1,
                         uint32_t value1, const char* name2, uint32_t value2) {
    runtime_error e(impl::EXCEPTION_SOURCE_FILE, line, ERR_VRK_RUNTIME, caller);
    e.append_message(impl::EXCEPTION_SOURCE_FILE, line, ERR_VRK_RUNTIME.number(), text);
    e << msgarg_uint(name1, value1) << msgarg_uint(name2, value2);
    e.register_on_thread();
    e.do_throw();
    impl::throw_check_base::throw_returned();
}

[[noreturn]] void throw_bad_pattern_(int line, const void* caller, uint32_t current,
                                     uint32_t expect) {
    throw_deserialize_error_(line, caller, BAD_PATTERN_TEXT, "CURRENT", current, "EXPECT", expect);
}

// A buffer from `ma` that goes back to it unless ownership is taken.
class pending_buffer {
public:
    pending_buffer(allocator& ma, char* p) noexcept : ma_(ma), p_(p) {}
    pending_buffer(const pending_buffer&) = delete;
    pending_buffer& operator=(const pending_buffer&) = delete;
    ~pending_buffer() { ma_.deallocate(p_); }
    char* get() const noexcept { return p_; }
    char* release() noexcept {
        char* p = p_;
        p_ = nullptr;
        return p;
    }
    void reset(char* p) noexcept {
        ma_.deallocate(p_);
        p_ = p;
    }

private:
    allocator& ma_;
    char* p_;
};

void check_length_(uint32_t len, const void* caller) {
    if (len > exception::MAX_WIRE_TEXT)
        throw_deserialize_error_(__LINE__, caller, BAD_LENGTH_TEXT, "LENGTH", len, "LIMIT",
                                 exception::MAX_WIRE_TEXT);
}

uint32_t big_endian_(const unsigned char* b) noexcept {
    return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

// Reads `N` big-endian words with one unformatted read. Bytes the stream
// does not deliver stay 0.
template <size_t N> void read_words_(istream& inp, uint32_t (&words)[N]) {
    unsigned char bytes[4 * N] = {};
    inp.read(reinterpret_cast<char*>(bytes), 4 * N);
    for (size_t i = 0; i < N; ++i)
        words[i] = big_endian_(bytes + 4 * i);
}

// Reads exactly `len` bytes to `dst`; a shorter input is an error.
void read_exact_(istream& inp, char* dst, size_t len, size_t total, size_t done,
                 const void* caller) {
    inp.read(dst, static_cast<streamsize>(len));
    const auto got = static_cast<size_t>(inp.gcount());
    if (got != len)
        throw_deserialize_error_(__LINE__, caller, TRUNCATED_TEXT, "LENGTH",
                                 static_cast<uint32_t>(total), "READ",
                                 static_cast<uint32_t>(done + got));
}

// A new NUL-terminated buffer of `len` + 1 bytes from `ma` holding the next
// `len` bytes of the input. Long texts are read in steps into a buffer that
// doubles, so the memory taken never runs far ahead of the bytes delivered.
char* read_text_(istream& inp, uint32_t len, allocator& ma, const void* caller) {
    check_length_(len, caller);
    const size_t want = size_t{len} + 1;
    size_t cap = want < DIRECT_READ ? want : DIRECT_READ;
    pending_buffer buf(ma, static_cast<char*>(ma.allocate(cap, caller)));
    size_t have = 0;
    for (;;) {
        // The last place of the buffer is kept for the NUL: a length that
        // is exactly a buffer size takes one more step.
        const size_t step = (cap - 1 < len ? cap - 1 : len) - have;
        read_exact_(inp, buf.get() + have, step, len, have, caller);
        have += step;
        if (have == len)
            break;
        const size_t next = cap * 2 < want ? cap * 2 : want;
        char* grown = static_cast<char*>(ma.allocate(next, caller));
        std::memcpy(grown, buf.get(), have);
        buf.reset(grown);
        cap = next;
    }
    buf.get()[len] = '\0';
    return buf.release();
}

// Reads `len` bytes to `dst` (a shorter input is an error) and the word
// behind them; a short text comes with its word in one read. Missing bytes
// of the word read as 0.
uint32_t read_exact_then_word_(istream& inp, char* dst, size_t len, const void* caller) {
    constexpr size_t SHORT_TEXT = 256;
    if (len > SHORT_TEXT) {
        read_exact_(inp, dst, len, len, 0, caller);
        uint32_t word[1];
        read_words_(inp, word);
        return word[0];
    }
    unsigned char bytes[SHORT_TEXT + 4];
    inp.read(reinterpret_cast<char*>(bytes), static_cast<streamsize>(len + 4));
    const auto got = static_cast<size_t>(inp.gcount());
    if (got < len)
        throw_deserialize_error_(__LINE__, caller, TRUNCATED_TEXT, "LENGTH",
                                 static_cast<uint32_t>(len), "READ", static_cast<uint32_t>(got));
    std::memcpy(dst, bytes, len);
    std::memset(bytes + got, 0, len + 4 - got);
    return big_endian_(bytes + len);
}

// Allocates one block with room for a first message of `msg_len` characters,
// 16-byte aligned, and initialises it to own `fname`.
exception_data* new_block_(allocator& ma, size_t msg_len, pending_buffer& fname, int line,
                           int err_no, const void* caller) {
    void* raw = ma.allocate(exception_data::allocation_size(msg_len), caller);
    const auto offset = static_cast<uint8_t>((16 - reinterpret_cast<uintptr_t>(raw) % 16) % 16);
    auto* block = ::new (static_cast<char*>(raw) + offset) exception_data;
    block->init(&ma, offset, fname.release(), line, err_no);
    return block;
}

// Gathers the writer's words and short texts, and gives them to the stream
// in one unformatted write when the buffer is full, before a long text and at
// the end: a stream write costs a sentry and a virtual call whatever its
// size. A stream that fails part-way keeps the same first bytes as with a
// write per field.
class gathered_output {
public:
    explicit gathered_output(ostream& out) noexcept : out_(out) {}
    gathered_output(const gathered_output&) = delete;
    gathered_output& operator=(const gathered_output&) = delete;

    void word(uint32_t value) {
        if (size_ + 4 > CAPACITY)
            flush();
        char* p = buffer_ + size_;
        p[0] = static_cast<char>(value >> 24);
        p[1] = static_cast<char>(value >> 16);
        p[2] = static_cast<char>(value >> 8);
        p[3] = static_cast<char>(value);
        size_ += 4;
    }
    void bytes(const char* p, size_t len) {
        if (len == 0)
            return; // `p` may be null: a node without a file name
        if (len > CAPACITY - size_) {
            flush();
            if (len > CAPACITY / 2) {
                out_.write(p, static_cast<streamsize>(len));
                return;
            }
        }
        std::memcpy(buffer_ + size_, p, len);
        size_ += len;
    }
    // Expands the node's message into the buffer behind its length, when
    // it fits there whole; false leaves the buffer as it was.
    bool expanded(const exception_node& node) {
        if (CAPACITY - size_ < CAPACITY / 2)
            flush();
        const size_t room = CAPACITY - size_ - 4;
        const size_t len = node.expand(buffer_ + size_ + 4, room);
        if (len >= room) // it may have been cut
            return false;
        word(static_cast<uint32_t>(len));
        size_ += len;
        return true;
    }
    void flush() {
        if (size_ != 0)
            out_.write(buffer_, static_cast<streamsize>(size_));
        size_ = 0;
    }
    // Fails the stream after what was gathered so far.
    void fail() {
        flush();
        out_.setstate(ios_base::badbit);
    }

private:
    static constexpr size_t CAPACITY = 512;
    ostream& out_;
    size_t size_ = 0;
    char buffer_[CAPACITY];
};

} // namespace

// ---------------------------------------------------------------------------
// Integers

void exception::write_int(ostream& out, uint32_t value) {
    const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    out.write(bytes, 4);
}

uint32_t exception::read_int(istream& inp) {
    // A truncated input reads as zeros and fails the next magic-word check.
    uint32_t word[1];
    read_words_(inp, word);
    return word[0];
}

// ---------------------------------------------------------------------------
// Entry points

void exception::store_type(ostream& out) const {
    write_int(out, TYPE_MARK);
    write_int(out, DEFAULT_TYPE_CHECK);
}

void exception::serialize(ostream& out, bool suppress_stack) const {
    store_type(out);
    deflate(out, suppress_stack);
}

// Not inlined: errors are located in the caller of deserialize.
__attribute__((noinline)) auto_ptr<exception, default_deleter>
exception::deserialize(istream& inp, allocator& alloc) {
    const void* caller = __builtin_return_address(0);
    const uint32_t word = read_int(inp);
    if ((word & TYPE_MARK) != TYPE_MARK)
        throw_bad_pattern_(__LINE__, caller, word, TYPE_MARK);
    exception_creator create = exception_by_type(static_cast<unsigned short>(word & 0xFFFFu));
    auto_ptr<exception, default_deleter> result =
        create != nullptr ? create(inp, alloc) : default_creator(inp, alloc);
    if (result) {
        try {
            result->inflate(inp);
        } catch (...) {
            // A half-read exception is nobody's news: the owner drops it
            // without a forgotten-exception report.
            result->mark_processed();
            throw;
        }
    }
    return result;
}

__attribute__((noinline)) auto_ptr<exception, default_deleter>
exception::default_creator(istream& inp, allocator& alloc) {
    const void* caller = __builtin_return_address(0);
    const uint32_t check = read_int(inp);
    if (check != DEFAULT_TYPE_CHECK)
        throw_bad_pattern_(__LINE__, caller, check, DEFAULT_TYPE_CHECK);
    auto_ptr<exception, default_deleter> result;
    ::new (auto_ptr_mem_ref(result), alloc, 0)
        exception(static_cast<volatile exception_data*>(nullptr));
    return result;
}

// ---------------------------------------------------------------------------
// Writer

void exception::deflate(ostream& out, bool suppress_stack) const {
    gathered_output gather(out);
    // Writes one byte string. A text the reader would refuse (longer than
    // MAX_WIRE_TEXT), or one that did not reach the scratch stream whole, is
    // not written at all: it fails `out` with badbit, so the caller, who
    // checks the stream after serializing, knows the bytes are incomplete.
    const auto write_text = [&gather](const char* p, size_t len, bool whole) {
        if (!whole || len > MAX_WIRE_TEXT) {
            gather.fail();
            return;
        }
        gather.word(static_cast<uint32_t>(len));
        gather.bytes(p, len);
    };
    const auto write_file = [&](const faultprot_cstring& file) {
        write_text(file.get(), file.get() != nullptr ? file.len() : 0, true);
    };

    exception cur_exp(p_fst_);
    if (cur_exp.p_fst_ == nullptr) {
        gather.word(BADALLOC_NODE);
        gather.word(static_cast<uint32_t>(err_no_));
        gather.word(static_cast<uint32_t>(line_));
        write_file(file_);
        gather.flush();
        return;
    }

    // Messages that fit are expanded straight into the gathered bytes; the
    // longer ones and the stack texts go through one scratch stream, which
    // is emptied after each and keeps its storage: the writer holds no more
    // than its longest text, and allocates only when a text is longer than
    // every one before it.
    osstream scratch(default_allocator());
    const auto write_scratch = [&]() {
        basic_stringbuf<char>& buf = *scratch.rdbuf();
        const size_t len = buf.size();
        write_text(buf.c_str(), len, scratch.good());
        buf.clear();
        scratch.clear();
    };

    for (;;) {
        exception_data* block = cur_exp.block_();
        block->set_done();
        for (const exception_node* node = &block->node_; node != nullptr; node = node->next()) {
            gather.word(REGULAR_NODE);
            gather.word(static_cast<uint32_t>(node->err_no_));
            gather.word(static_cast<uint32_t>(node->bad_alloc_));
            gather.word(static_cast<uint32_t>(node->line_));
            write_file(node->file_);
            if (!gather.expanded(*node)) {
                node->expand(scratch);
                write_scratch();
            }
        }
        if (suppress_stack) {
            gather.word(0);
        } else {
            cur_exp.print_stack(scratch);
            write_scratch();
        }
        cur_exp = cur_exp.get_next();
        if (cur_exp.p_fst_ == nullptr)
            break;
    }
    gather.word(REGNODE_END);
    gather.flush();
    mark_processed();
}

// ---------------------------------------------------------------------------
// Reader

// Not inlined: its return address names the caller of every allocation.
__attribute__((noinline)) void exception::inflate(istream& inp) {
    const void* caller = __builtin_return_address(0);
    uint32_t word = read_int(inp);
    if (word == BADALLOC_NODE) {
        inflate_badalloc_(inp, caller);
        return;
    }
    if (word != REGULAR_NODE)
        throw_bad_pattern_(__LINE__, caller, word, REGULAR_NODE);

    allocator& ma = default_allocator();
    exception_data* prev_block = nullptr;
    for (;;) { // one exception section
        exception_data* block = nullptr;
        exception_node* last = nullptr;
        do {                   // one node record, its magic word consumed
            uint32_t fixed[4]; // error number, code, line, file-name length
            read_words_(inp, fixed);
            const int err_no = static_cast<int>(fixed[0]);
            const int code = static_cast<int>(fixed[1]);
            const int line = static_cast<int>(fixed[2]);
            const uint32_t fname_len = fixed[3];
            pending_buffer fname(ma, nullptr);
            uint32_t msg_len;
            if (fname_len == 0) {
                msg_len = read_int(inp);
            } else if (fname_len < DIRECT_READ) {
                fname.reset(static_cast<char*>(ma.allocate(size_t{fname_len} + 1, caller)));
                msg_len = read_exact_then_word_(inp, fname.get(), fname_len, caller);
                fname.get()[fname_len] = '\0';
            } else {
                fname.reset(read_text_(inp, fname_len, ma, caller));
                msg_len = read_int(inp);
            }
            check_length_(msg_len, caller);
            // A long message is read before its node is allocated, so that
            // the node's size is never taken on trust.
            pending_buffer staged(ma, msg_len >= DIRECT_READ ? read_text_(inp, msg_len, ma, caller)
                                                             : nullptr);
            exception_node* node;
            if (block == nullptr) {
                block = new_block_(ma, msg_len, fname, line, err_no, caller);
                if (prev_block == nullptr) {
                    p_fst_ = block;
                    file_ = block->node_.file_;
                    line_ = line;
                    err_no_ = err_no;
                } else {
                    // Owned by the predecessor's link, like an appended block.
                    block->pc_.store(prev_block, 0);
                    __atomic_store_n(&prev_block->p_next_, block, __ATOMIC_RELEASE);
                }
                node = &block->node_;
            } else {
                void* raw = ma.allocate(exception_node::allocation_size(msg_len), caller);
                node = ::new (raw) exception_node;
                node->init_(fname.release(), line, err_no);
                last->p_next_ = node;
            }
            last = node;
            if (prev_block == nullptr)
                p_lst_ = node;
            char* dst = node->msg_param_.init(nullptr, msg_len);
            node->msg_owner_ = true;
            if (staged.get() != nullptr) {
                std::memcpy(dst, staged.get(), msg_len);
                word = read_int(inp);
            } else {
                word = read_exact_then_word_(inp, dst, msg_len, caller);
            }
            node->bad_alloc_ = code;
        } while (word == REGULAR_NODE);

        // `word` is the stack-text length of this section.
        if (word != 0) {
            block->p_buff_ = read_text_(inp, word, ma, caller);
            block->buff_sz_ = word;
        }
        word = read_int(inp);
        if (word == REGNODE_END)
            return;
        if (word != REGULAR_NODE)
            throw_bad_pattern_(__LINE__, caller, word, REGNODE_END);
        prev_block = block;
    }
}

void exception::inflate_badalloc_(istream& inp, const void* caller) {
    // No magic word follows these three, so a short input would go unnoticed
    // and decode as zeros: each must arrive whole.
    const auto word = [&]() {
        unsigned char b[4];
        read_exact_(inp, reinterpret_cast<char*>(b), 4, 4, 0, caller);
        return big_endian_(b);
    };
    err_no_ = static_cast<int>(word());
    line_ = static_cast<int>(word());
    const uint32_t fname_len = word();
    if (fname_len == 0)
        return; // stays without a block, with its creator's file name
    allocator& ma = default_allocator();
    pending_buffer fname(ma, read_text_(inp, fname_len, ma, caller));
    exception_data* block = new_block_(ma, 0, fname, line_, err_no_, caller);
    p_fst_ = block;
    p_lst_ = &block->node_;
    file_ = block->node_.file_;
    block->node_.align_ = IMPORTED_BAD_ALLOC_TEXT;
}

} // namespace vrk
