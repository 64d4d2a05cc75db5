// Message records, their parameter lists and the expansion of placeholders.
#include "vrk/ext/message_list.hpp"

#include <cstring>
#include <new>

#include "vrk/ext/itoa.hpp"
#include "vrk/import.hpp"
#include "vrk/ostream.hpp"

namespace vrk {

namespace {

// Walks the list from `first` to `last` inclusive (the record behind `last`
// may be one a copy appended later; it is not ours to see).
inline const msg_parameter* step_(const msg_parameter* p, const msg_parameter* last) noexcept {
    return p == last ? nullptr : p->p_next_;
}

// Names are short: a byte loop beats a library call.
inline bool named_(const msg_parameter* p, const char* name, size_t len) noexcept {
    if (p->name_len_ != len)
        return false;
    for (size_t i = 0; i < len; ++i)
        if (p->name_[i] != name[i])
            return false;
    return true;
}

// The parameter a placeholder of that name stands for: the latest
// replacement, else the first definition; null when there is none.
const msg_parameter* select_(const msg_parameter* first, const msg_parameter* last,
                             const char* name, size_t len) noexcept {
    const msg_parameter* found = nullptr;
    for (const msg_parameter* p = first; p != nullptr; p = step_(p, last))
        if (named_(p, name, len) && (found == nullptr || p->force_))
            found = p;
    return found;
}

// Splits `text` into literal runs (`on_text(ptr, n)`) and substituted
// placeholders (`on_param(record)`). An unknown name and a `$` without a
// partner are literal text.
template <class OnText, class OnParam>
void scan_(const char* text, size_t len, const msg_parameter* first, const msg_parameter* last,
           OnText on_text, OnParam on_param) {
    size_t written = 0; // text before this index has been handed on
    size_t pos = 0;     // where to look for the next opening `$`
    while (pos < len) {
        const void* open = std::memchr(text + pos, '$', len - pos);
        if (open == nullptr)
            break;
        const size_t o = static_cast<size_t>(static_cast<const char*>(open) - text);
        const void* close = std::memchr(text + o + 1, '$', len - o - 1);
        if (close == nullptr)
            break;
        const size_t c = static_cast<size_t>(static_cast<const char*>(close) - text);
        const msg_parameter* p =
            c > o + 1 ? select_(first, last, text + o + 1, c - o - 1) : nullptr;
        if (p == nullptr) {
            pos = c; // the closing `$` may open the next placeholder
            continue;
        }
        if (o > written)
            on_text(text + written, o - written);
        on_param(p);
        written = pos = c + 1;
    }
    if (len > written)
        on_text(text + written, len - written);
}

// True when the text substitutes a placeholder named like `p`.
bool mentioned_(const char* text, size_t len, const msg_parameter* first, const msg_parameter* last,
                const msg_parameter* p) {
    bool seen = false;
    scan_(
        text, len, first, last, [](const char*, size_t) {},
        [&](const msg_parameter* q) { seen = seen || named_(q, p->name_, p->name_len_); });
    return seen;
}

// True when no parameter before `p` has its name.
bool first_of_name_(const msg_parameter* first, const msg_parameter* p) noexcept {
    for (const msg_parameter* q = first; q != p; q = q->p_next_)
        if (named_(q, p->name_, p->name_len_))
            return false;
    return true;
}

// One line of `text` from `pos`: its length, line end not counted; `*next`
// is where the following line starts.
size_t line_at_(const char* text, size_t len, size_t pos, size_t* next) noexcept {
    const void* lf = std::memchr(text + pos, '\n', len - pos);
    const size_t end =
        lf != nullptr ? static_cast<size_t>(static_cast<const char*>(lf) - text) : len;
    *next = lf != nullptr ? end + 1 : len;
    return end - pos;
}

// A heading line of the long printed form, "exception  1: no.42  (f:7)":
// on success `*no` and `*no_len` give the error number's digits.
bool heading_(const char* line, size_t len, const char** no, size_t* no_len) noexcept {
    constexpr size_t WORD = 9; // "exception"
    if (len < WORD + 9 || std::memcmp(line, "exception", WORD) != 0 || line[len - 1] != ')')
        return false;
    size_t i = WORD;
    while (i < len && line[i] != ':')
        ++i;
    if (len - i < 5 || std::memcmp(line + i, ": no.", 5) != 0)
        return false;
    const size_t start = i + 5;
    size_t end = start;
    if (end < len && line[end] == '-')
        ++end;
    while (end < len && line[end] >= '0' && line[end] <= '9')
        ++end;
    if (end == start || len - end < 3 || std::memcmp(line + end, "  (", 3) != 0)
        return false;
    *no = line + start;
    *no_len = end - start;
    return true;
}

} // namespace

// ---------------------------------------------------------------------------
// Sinks

bool msg_parameter::out_ifc::remainder(const char* name, uint32_t name_len, const char* value,
                                       uint32_t val_len) {
    if (name == nullptr) {
        if (!remainder_open_)
            return true;
        remainder_open_ = false;
        return write("]", 1);
    }
    const bool lead = !remainder_open_ && text_empty_;
    bool ok = lead ? write("[", 1) : write(remainder_open_ ? ", " : " [", 2);
    remainder_open_ = true;
    ok = write(name, name_len) && ok;
    ok = write("=", 1) && ok;
    return write_value_(value, val_len) && ok;
}

bool msg_parameter::out_ifc::write_value_(const char* value, size_t len) {
    while (len > 0 && (value[len - 1] == '\n' || value[len - 1] == '\r'))
        --len;
    size_t pos = 0;
    const size_t first = line_at_(value, len, 0, &pos);
    const char* no = nullptr;
    size_t no_len = 0;
    size_t next = 0;
    const size_t text_len = pos < len ? line_at_(value, len, pos, &next) : 0;
    if (!heading_(value, first, &no, &no_len) || text_len < 4 ||
        std::memcmp(value + pos, "    ", 4) != 0)
        return write_escaped_(value, len);

    // A printed exception: its first message, and how many follow it.
    unsigned long more = 0;
    for (size_t at = next; at < len;) {
        const size_t start = at;
        const size_t n = line_at_(value, len, start, &at);
        const char* ignored_no = nullptr;
        size_t ignored_len = 0;
        more += heading_(value + start, n, &ignored_no, &ignored_len) ? 1 : 0;
    }
    bool ok = write("exception ", 10);
    ok = write(no, no_len) && ok;
    ok = write(": ", 2) && ok;
    ok = write_escaped_(value + pos + 4, text_len - 4) && ok;
    if (more == 0)
        return ok;
    char digits[24];
    vrk::itoa(more, digits);
    ok = write(" (+", 3) && ok;
    ok = write(digits, std::strlen(digits)) && ok;
    return write(" more)", 6) && ok;
}

bool msg_parameter::out_ifc::write_escaped_(const char* text, size_t len) {
    bool ok = true;
    size_t run = 0; // start of the characters not yet written
    for (size_t i = 0; i < len; ++i) {
        const char c = text[i];
        const char esc = c == '\n' ? 'n' : c == '\r' ? 'r' : c;
        if (c != '\\' && c != ']' && c != ',' && esc == c)
            continue;
        if (i > run)
            ok = write(text + run, i - run) && ok;
        const char pair[2] = {'\\', esc};
        ok = write(pair, 2) && ok;
        run = i + 1;
    }
    if (len > run)
        ok = write(text + run, len - run) && ok;
    return ok;
}

bool msg_write_stream::write(const char* text, size_t len) {
    os_.write(text, static_cast<streamsize>(len));
    return !os_.bad();
}

msg_byte_stream::msg_byte_stream(char* buffer, size_t size) noexcept
    : p_buffer_(buffer), capacity_(buffer != nullptr ? size : 0) {
    if (capacity_ != 0)
        p_buffer_[0] = '\0';
}

bool msg_byte_stream::write(const char* text, size_t len) noexcept {
    const size_t room = capacity_ - used_;
    const size_t n = len < room ? len : room;
    if (n != 0)
        std::memcpy(p_buffer_ + used_, text, n);
    used_ += n;
    if (used_ < capacity_)
        p_buffer_[used_] = '\0';
    return n == len;
}

// ---------------------------------------------------------------------------
// Parameters

size_t msg_parameter::allocation_size(size_t name_len, size_t val_len) noexcept {
    const size_t n = offsetof(msg_parameter, value_) + val_len + 1 + name_len + 1;
    return n < sizeof(msg_parameter) ? sizeof(msg_parameter) : n;
}

void msg_parameter::init(const char* name, const char* value, uint32_t size, bool force) noexcept {
    init_(name, std::strlen(name), value, size, force);
}

void msg_parameter::init_(const char* name, size_t name_len, const char* value, uint32_t size,
                          bool force) noexcept {
    // Pointer arithmetic from the decayed array: the text runs past value_[0]
    // to the end of the allocation.
    char* text = value_;
    if (value != nullptr && size != 0)
        std::memcpy(text, value, size);
    else
        size = 0;
    text[size] = '\0';
    char* name_copy = text + size + 1;
    std::memcpy(name_copy, name, name_len + 1);
    p_next_ = nullptr;
    name_ = name_copy;
    name_len_ = static_cast<uint32_t>(name_len);
    val_size_ = size;
    force_ = force;
}

void msg_parameter::destroy(msg_parameter* first, allocator& alloc) noexcept {
    while (first != nullptr) {
        msg_parameter* next = first->p_next_;
        alloc.deallocate(first);
        first = next;
    }
}

const char* msg_parameter::get_value_by_name(const char* name) const noexcept {
    if (name == nullptr)
        return nullptr;
    return named_(this, name, std::strlen(name)) ? value_ : nullptr;
}

void msg_parameter::expand(const char* text, size_t len, out_ifc& out, msg_parameter** first,
                           msg_parameter** last) {
    const msg_parameter* f = first != nullptr ? *first : nullptr;
    const msg_parameter* l = last != nullptr ? *last : nullptr;
    if (f == nullptr || l == nullptr) {
        out.write(text, len);
        return;
    }
    // The records the text substituted, remembered while writing it, so that
    // the remainder needs no second scan per parameter (up to a few; texts
    // with more placeholders scan again).
    constexpr int MAX_SEEN = 16;
    const msg_parameter* seen[MAX_SEEN];
    int n_seen = 0;
    size_t written = 0;
    scan_(
        text, len, f, l,
        [&](const char* s, size_t n) {
            written += n;
            out.write(s, n);
        },
        [&](const msg_parameter* p) {
            written += p->val_size_;
            if (n_seen <= MAX_SEEN) {
                bool known = false;
                for (int i = 0; i < n_seen && !known; ++i)
                    known = seen[i] == p;
                if (!known && n_seen < MAX_SEEN)
                    seen[n_seen++] = p;
                else if (!known)
                    n_seen = MAX_SEEN + 1; // too many: scan again below
            }
            out.write(p->value_, p->val_size_);
        });

    // Every record written for a placeholder: none is left for the list.
    if (n_seen <= MAX_SEEN) {
        int count = 0;
        for (const msg_parameter* p = f; p != nullptr && count <= n_seen; p = step_(p, l))
            ++count;
        if (count == n_seen)
            return;
    }
    out.text_empty_ = written == 0;
    bool listed = false;
    for (const msg_parameter* p = f; p != nullptr; p = step_(p, l)) {
        if (!first_of_name_(f, p))
            continue;
        // A placeholder of p's name stands for the record select_ picks for
        // that name, so p is mentioned exactly when that record was written.
        const msg_parameter* v = select_(f, l, p->name_, p->name_len_);
        bool mentioned = false;
        if (n_seen <= MAX_SEEN) {
            for (int i = 0; i < n_seen && !mentioned; ++i)
                mentioned = seen[i] == v;
        } else {
            mentioned = mentioned_(text, len, f, l, p);
        }
        if (mentioned)
            continue;
        out.remainder(p->name_, p->name_len_, v->value_, v->val_size_);
        listed = true;
    }
    if (listed)
        out.remainder(nullptr, 0, nullptr, 0);
}

// ---------------------------------------------------------------------------
// Message records

char* message_node::init(const char* text, size_t len) noexcept {
    prm_first_ = nullptr;
    prm_last_ = nullptr;
    length_ = len;
    char* area = text_();
    if (text != nullptr && len != 0)
        std::memcpy(area, text, len);
    area[len] = '\0';
    return area;
}

void message_node::destroy(allocator& alloc) noexcept {
    msg_parameter::destroy(prm_first_, alloc);
    prm_first_ = nullptr;
    prm_last_ = nullptr;
}

// Not inlined: the allocator is told who asked, the code this returns to.
__attribute__((noinline)) bool message_node::new_param(allocator& ma, const char* name,
                                                       const char* value, bool force) noexcept {
    if (name == nullptr)
        return true; // nothing to store, and no memory was lost
    const size_t name_len = std::strlen(name);
    const size_t val_len = value != nullptr ? std::strlen(value) : 0;
    if (name_len > UINT32_MAX || val_len > UINT32_MAX)
        return false;
    void* raw = ma.allocateNoThrow(msg_parameter::allocation_size(name_len, val_len),
                                   __builtin_return_address(0));
    if (raw == nullptr)
        return false;
    auto* p = ::new (raw) msg_parameter;
    p->init_(name, name_len, value, static_cast<uint32_t>(val_len), force);
    if (prm_last_ != nullptr)
        prm_last_->p_next_ = p;
    else
        prm_first_ = p;
    prm_last_ = p;
    return true;
}

const char* message_node::get_param_value_by_name(const char* name) const noexcept {
    if (name == nullptr || prm_first_ == nullptr)
        return nullptr;
    const msg_parameter* p = select_(prm_first_, prm_last_, name, std::strlen(name));
    return p != nullptr ? p->value_ : nullptr;
}

void message_node::expand(msg_parameter::out_ifc& out) const {
    msg_parameter* first = prm_first_;
    msg_parameter* last = prm_last_;
    msg_parameter::expand(message(), length_, out, &first, &last);
}

size_t message_node::expand(char* buf, size_t size) const noexcept {
    msg_byte_stream out(buf, size);
    expand(out);
    return out.size();
}

ostream& message_node::expand(ostream& os) const {
    msg_write_stream out(os);
    expand(out);
    return os;
}

// ---------------------------------------------------------------------------
// Messages to append

error_message::error_message(const char* fname, int line, int err_no, const char* msg) noexcept
    : file_(vrk_extern::import::stdFileName(fname)), line_(line), err_no_(err_no), format_(msg) {}

} // namespace vrk
