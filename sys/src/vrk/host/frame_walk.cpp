// The default host's fast stack walk: call-frame information read once per
// return address, kept in a fixed table of packed rules.
#include "vrk/host/frame_walk.hpp"

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

// The runtime's lookup of the frame description entry that covers `pc`
// (exported by the unwinder, declared only in its private headers). It finds
// the loaded object through the dynamic linker's lock-free lookup.
struct dwarf_eh_bases {
    void* tbase_;
    void* dbase_;
    void* func_;
};
extern "C" const void* _Unwind_Find_FDE(void* pc,
                                        dwarf_eh_bases* bases); // the runtime's own name

namespace vrk::host {

namespace {

#if defined(__x86_64__)

// DWARF register numbers of x86-64.
constexpr unsigned REG_RBP = 6;
constexpr unsigned REG_RSP = 7;
constexpr unsigned REG_RA = 16;

// What one frame needs: CFA = (rbp or rsp) + cfa_off; return address at
// CFA + ra_off; the caller's rbp at CFA + rbp_off when rbp_saved.
struct frame_rule {
    bool cfa_rbp_ = false;
    int64_t cfa_off_ = 0;
    bool rbp_saved_ = false;
    int64_t rbp_off_ = 0;
    int64_t ra_off_ = 0;
    bool ra_undefined_ = false; // the outermost frame (e.g. _start)
};

// --- the rule table ----------------------------------------------------------
//
// One 64-bit word per entry, indexed by the low 14 bits of the address and
// holding its remaining 33 bits (user addresses are below 2^47), so a word is either wholly one address's rule
// or wholly another's: relaxed loads and stores are enough, and two threads
// filling the same entry only overwrite each other. Packed rule (29 bits):
// bit 0 cfa_rbp, bits 1-15 cfa_off, bit 16 rbp_saved, bits 17-28 the
// distance of the saved rbp below the CFA; cfa_off 0x7fff marks the
// outermost frame (return address undefined). Only rules with the return
// address at CFA - 8 are kept; others are computed on every walk.

// 16384 entries (128 KiB, touched only where used): return addresses that
// share an entry evict each other, which costs a new reading, never a wrong
// rule.
constexpr unsigned TABLE_BITS = 14;
constexpr uint64_t TABLE_SIZE = uint64_t{1} << TABLE_BITS;
constexpr unsigned RULE_BITS = 29;
constexpr uint64_t RULE_MASK = (uint64_t{1} << RULE_BITS) - 1;

std::atomic<uint64_t> g_rules[TABLE_SIZE];

constexpr int64_t OUTERMOST = 0x7fff;

bool pack(const frame_rule& r, uint64_t* word) {
    if (r.ra_undefined_) {
        *word = static_cast<uint64_t>(OUTERMOST) << 1;
        return true;
    }
    if (r.ra_off_ != -8 || r.cfa_off_ < 0 || r.cfa_off_ >= OUTERMOST)
        return false;
    uint64_t bits = (r.cfa_rbp_ ? 1u : 0u) | (static_cast<uint64_t>(r.cfa_off_) << 1);
    if (r.rbp_saved_) {
        if (r.rbp_off_ >= 0 || -r.rbp_off_ >= (1 << 12))
            return false;
        bits |= (uint64_t{1} << 16) | (static_cast<uint64_t>(-r.rbp_off_) << 17);
    }
    *word = bits;
    return true;
}

void unpack(uint64_t bits, frame_rule* r) {
    r->cfa_rbp_ = (bits & 1) != 0;
    r->cfa_off_ = static_cast<int64_t>((bits >> 1) & 0x7fff);
    r->rbp_saved_ = ((bits >> 16) & 1) != 0;
    r->rbp_off_ = -static_cast<int64_t>((bits >> 17) & 0xfff);
    r->ra_off_ = -8;
    r->ra_undefined_ = r->cfa_off_ == OUTERMOST;
}

bool cached(uintptr_t pc, frame_rule* r) {
    const uint64_t word = g_rules[pc & (TABLE_SIZE - 1)].load(std::memory_order_relaxed);
    if (word == 0 || (word >> RULE_BITS) != (pc >> TABLE_BITS))
        return false;
    unpack(word & RULE_MASK, r);
    return true;
}

// The rules belong to the objects loaded when they were read: once one is
// unloaded, another may take its addresses with different code. The dynamic
// linker counts unloads; when the count moves, every rule goes. A walk that
// found the count unchanged may still be storing rules, but only for code on
// its own stack, which is loaded.
std::atomic<unsigned long long> g_unloads_seen{0};

int read_unloads(dl_phdr_info* info, size_t size, void* arg) {
    if (size >= offsetof(dl_phdr_info, dlpi_subs) + sizeof info->dlpi_subs)
        *static_cast<unsigned long long*>(arg) = info->dlpi_subs;
    return 1; // the counters are the same in every entry: one is enough
}

void forget_unloaded_rules() {
    const unsigned long long unloads = library_unloads();
    if (unloads == g_unloads_seen.load(std::memory_order_acquire))
        return;
    for (auto& word : g_rules)
        word.store(0, std::memory_order_relaxed);
    g_unloads_seen.store(unloads, std::memory_order_release);
}

void remember(uintptr_t pc, const frame_rule& r) {
    // Addresses above 2^47 (never user code on x86-64) do not fit the key.
    static_assert(47 - TABLE_BITS + RULE_BITS <= 64, "key and rule share one word");
    uint64_t bits;
    if ((pc >> 47) != 0 || !pack(r, &bits))
        return;
    g_rules[pc & (TABLE_SIZE - 1)].store(((pc >> TABLE_BITS) << RULE_BITS) | bits,
                                         std::memory_order_relaxed);
}

// --- reading the call-frame information --------------------------------------

struct reader {
    const uint8_t* p_;
    const uint8_t* end_;
    bool ok_ = true;

    uint8_t byte() {
        if (p_ >= end_) {
            ok_ = false;
            return 0;
        }
        return *p_++;
    }
    uint64_t uleb() {
        uint64_t v = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const uint8_t b = byte();
            v |= static_cast<uint64_t>(b & 0x7f) << shift;
            if ((b & 0x80) == 0)
                return v;
        }
        ok_ = false;
        return 0;
    }
    int64_t sleb() {
        int64_t v = 0;
        unsigned shift = 0;
        uint8_t b;
        do {
            b = byte();
            if (shift < 64)
                v |= static_cast<int64_t>(static_cast<uint64_t>(b & 0x7f) << shift);
            shift += 7;
        } while ((b & 0x80) != 0 && ok_);
        if (shift < 64 && (b & 0x40) != 0)
            v |= -(int64_t{1} << shift);
        return v;
    }
    void skip(size_t n) {
        if (static_cast<size_t>(end_ - p_) < n) {
            ok_ = false;
            return;
        }
        p_ += n;
    }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= static_cast<uint32_t>(byte()) << (8 * i);
        return v;
    }
    // Skips one pointer of the given encoding (DW_EH_PE_*); false for the
    // forms a plain frame description does not use, and for the variable and
    // 2-byte sizes, which toolchains do not emit for x86-64 (the frame then
    // goes to the unwinder).
    bool skip_encoded(uint8_t enc) {
        if (enc == 0xff) // omitted
            return true;
        if ((enc & 0x70) == 0x50) // aligned
            return false;
        switch (enc & 0x0f) {
        case 0x03: // udata4
        case 0x0b: // sdata4
            skip(4);
            break;
        case 0x00: // absptr
        case 0x04: // udata8
        case 0x0c: // sdata8
            skip(8);
            break;
        default:
            return false;
        }
        return ok_;
    }
};

// The state of the CFA program that matters for a walk.
struct cfa_state {
    unsigned cfa_reg_ = REG_RSP;
    int64_t cfa_off_ = 0;
    bool cfa_expr_ = false;
    // Rules of rbp and the return address: 0 unchanged, 1 at CFA + off,
    // 2 undefined, 3 anything else (register, expression).
    int rbp_how_ = 0;
    int64_t rbp_off_ = 0;
    int ra_how_ = 0;
    int64_t ra_off_ = 0;
};

struct cie_info {
    uint64_t code_align_ = 1;
    int64_t data_align_ = 1;
    unsigned ra_reg_ = REG_RA;
    uint8_t fde_enc_ = 0;
    bool has_z_ = false;
    const uint8_t* insns_ = nullptr;
    const uint8_t* end_ = nullptr;
};

uint32_t load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

bool parse_cie(const uint8_t* cie, cie_info* info) {
    const uint32_t len = load32(cie);
    if (len == 0 || len == 0xffffffffu)
        return false;
    reader r{cie + 4, cie + 4 + len};
    if (r.u32() != 0) // CIE id
        return false;
    const uint8_t version = r.byte();
    if (version != 1 && version != 3)
        return false;
    const char* aug = reinterpret_cast<const char*>(r.p_);
    while (r.ok_ && r.byte() != 0) {
    }
    info->code_align_ = r.uleb();
    info->data_align_ = r.sleb();
    info->ra_reg_ = version == 1 ? r.byte() : static_cast<unsigned>(r.uleb());
    const uint8_t* aug_end = nullptr;
    if (aug[0] == 'z') {
        info->has_z_ = true;
        const uint64_t n = r.uleb();
        aug_end = r.p_ + n;
        for (const char* a = aug + 1; *a != 0 && r.ok_; ++a) {
            switch (*a) {
            case 'R':
                info->fde_enc_ = r.byte();
                break;
            case 'P': {
                const uint8_t enc = r.byte();
                if (!r.skip_encoded(enc))
                    return false;
                break;
            }
            case 'L':
                r.byte();
                break;
            default: // 'S' (signal frames) and anything unknown
                return false;
            }
        }
        if (!r.ok_ || aug_end > r.end_)
            return false;
        r.p_ = aug_end;
    } else if (aug[0] != 0) {
        return false;
    }
    info->insns_ = r.p_;
    info->end_ = r.end_;
    return r.ok_ && info->ra_reg_ == REG_RA;
}

// Runs a CFA program until the row that covers `pc`. `initial` is the state
// after the CIE's instructions (for DW_CFA_restore); null while running them.
bool run_program(const uint8_t* insns, const uint8_t* end, const cie_info& cie, uintptr_t loc,
                 uintptr_t pc, cfa_state* s, const cfa_state* initial) {
    constexpr int MAX_REMEMBERED = 8;
    cfa_state remembered[MAX_REMEMBERED];
    int depth = 0;
    reader r{insns, end};
    auto set_offset = [&](unsigned reg, int64_t off) {
        if (reg == REG_RBP) {
            s->rbp_how_ = 1;
            s->rbp_off_ = off;
        } else if (reg == REG_RA) {
            s->ra_how_ = 1;
            s->ra_off_ = off;
        }
    };
    auto set_other = [&](unsigned reg, int how) {
        if (reg == REG_RBP)
            s->rbp_how_ = how;
        else if (reg == REG_RA)
            s->ra_how_ = how;
    };
    auto restore = [&](unsigned reg) {
        if (initial == nullptr)
            return false;
        if (reg == REG_RBP) {
            s->rbp_how_ = initial->rbp_how_;
            s->rbp_off_ = initial->rbp_off_;
        } else if (reg == REG_RA) {
            s->ra_how_ = initial->ra_how_;
            s->ra_off_ = initial->ra_off_;
        }
        return true;
    };
    while (r.p_ < r.end_ && r.ok_) {
        const uint8_t op = r.byte();
        const uint8_t low = op & 0x3f;
        switch (op >> 6) {
        case 1: // advance_loc
            loc += low * cie.code_align_;
            if (loc > pc)
                return true;
            continue;
        case 2: // offset
            set_offset(low, static_cast<int64_t>(r.uleb()) * cie.data_align_);
            continue;
        case 3: // restore
            if (!restore(low))
                return false;
            continue;
        default:
            break;
        }
        switch (op) {
        case 0x00: // nop
            break;
        case 0x02:
        case 0x03:
        case 0x04: { // advance_loc1/2/4
            uint64_t delta = r.byte();
            if (op >= 0x03)
                delta |= static_cast<uint64_t>(r.byte()) << 8;
            if (op == 0x04) {
                delta |= static_cast<uint64_t>(r.byte()) << 16;
                delta |= static_cast<uint64_t>(r.byte()) << 24;
            }
            loc += delta * cie.code_align_;
            if (loc > pc)
                return r.ok_;
            break;
        }
        case 0x07: // undefined
            set_other(static_cast<unsigned>(r.uleb()), 2);
            break;
        case 0x08: // same_value
            set_other(static_cast<unsigned>(r.uleb()), 0);
            break;
        case 0x09: { // register
            set_other(static_cast<unsigned>(r.uleb()), 3);
            r.uleb();
            break;
        }
        case 0x0a: // remember_state
            if (depth == MAX_REMEMBERED)
                return false;
            remembered[depth++] = *s;
            break;
        case 0x0b: // restore_state
            if (depth == 0)
                return false;
            *s = remembered[--depth];
            break;
        case 0x0c: // def_cfa
            s->cfa_reg_ = static_cast<unsigned>(r.uleb());
            s->cfa_off_ = static_cast<int64_t>(r.uleb());
            s->cfa_expr_ = false;
            break;
        case 0x0d: // def_cfa_register
            s->cfa_reg_ = static_cast<unsigned>(r.uleb());
            s->cfa_expr_ = false;
            break;
        case 0x0e: // def_cfa_offset
            s->cfa_off_ = static_cast<int64_t>(r.uleb());
            break;
        case 0x0f: // def_cfa_expression
            s->cfa_expr_ = true;
            r.skip(r.uleb());
            break;
        case 0x10:
        case 0x16: { // expression, val_expression
            set_other(static_cast<unsigned>(r.uleb()), 3);
            r.skip(r.uleb());
            break;
        }
        case 0x2e: // GNU_args_size
            r.uleb();
            break;
        default:
            // set_loc, and the extended, signed and value forms, which
            // compilers do not emit for x86-64 code (its registers fit the
            // compact forms, its data alignment the unsigned ones): the
            // frame goes to the unwinder.
            return false;
        }
    }
    return r.ok_;
}

enum class lookup { found, no_fde, unsupported };

// The rule of the frame whose code is at `pc` (for a return address, the
// address of the call instruction's last byte).
lookup find_rule(uintptr_t pc, frame_rule* rule) {
    if (cached(pc, rule))
        return lookup::found;
    dwarf_eh_bases bases{};
    const auto* fde =
        static_cast<const uint8_t*>(_Unwind_Find_FDE(reinterpret_cast<void*>(pc), &bases));
    if (fde == nullptr)
        return lookup::no_fde;
    const uint32_t len = load32(fde);
    if (len == 0 || len == 0xffffffffu)
        return lookup::unsupported;
    const uint32_t cie_delta = load32(fde + 4);
    cie_info cie;
    if (!parse_cie(fde + 4 - cie_delta, &cie))
        return lookup::unsupported;
    reader r{fde + 8, fde + 4 + len};
    // The start of the function comes from the lookup; its encoded form and
    // the range only need skipping.
    if (!r.skip_encoded(cie.fde_enc_) || !r.skip_encoded(cie.fde_enc_ & 0x0f))
        return lookup::unsupported;
    if (cie.has_z_)
        r.skip(r.uleb());
    if (!r.ok_)
        return lookup::unsupported;
    const uintptr_t start = reinterpret_cast<uintptr_t>(bases.func_);
    cfa_state s;
    if (!run_program(cie.insns_, cie.end_, cie, start, pc, &s, nullptr))
        return lookup::unsupported;
    const cfa_state initial = s;
    if (!run_program(r.p_, r.end_, cie, start, pc, &s, &initial))
        return lookup::unsupported;
    if (s.cfa_expr_ || (s.cfa_reg_ != REG_RSP && s.cfa_reg_ != REG_RBP) || s.rbp_how_ == 2 ||
        s.rbp_how_ == 3 || s.ra_how_ == 0 || s.ra_how_ == 3)
        return lookup::unsupported;
    rule->cfa_rbp_ = s.cfa_reg_ == REG_RBP;
    rule->cfa_off_ = s.cfa_off_;
    rule->rbp_saved_ = s.rbp_how_ == 1;
    rule->rbp_off_ = s.rbp_off_;
    rule->ra_undefined_ = s.ra_how_ == 2;
    rule->ra_off_ = s.ra_off_;
    remember(pc, *rule);
    return lookup::found;
}

// Frames larger than this are taken for a broken rule.
constexpr uintptr_t MAX_FRAME = uintptr_t{1} << 20;

// --- the thread's stack ------------------------------------------------------
//
// The walk reads saved words only inside the mapping that holds the stack
// pointer it starts from, so a wrong rule ends in the unwinder, never in a
// fault. The mapping is found once per thread in /proc/self/maps, read with
// plain system calls into a buffer on the stack (nothing allocated); the
// state stays trivially destructible so that walks from exit-time
// destructors still find it.
struct stack_range {
    uintptr_t lo_;
    uintptr_t hi_;
};
constinit thread_local stack_range t_stack{0, 0};

int hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// Lines read "lo-hi perms ...": only the two addresses matter.
bool find_mapping(uintptr_t sp, stack_range* out) {
    const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buf[1024];
    uintptr_t bounds[2] = {0, 0};
    int field = 0; // 0, 1: reading lo, hi; 2: the rest of the line
    bool found = false;
    ssize_t n;
    while (!found && (n = ::read(fd, buf, sizeof buf)) > 0) {
        for (ssize_t i = 0; i < n && !found; ++i) {
            const char c = buf[i];
            if (c == '\n') {
                found = field == 2 && bounds[0] <= sp && sp < bounds[1];
                if (!found)
                    bounds[0] = bounds[1] = 0;
                field = 0;
            } else if (field < 2) {
                const int d = hex_digit(c);
                if (d >= 0)
                    bounds[field] = bounds[field] << 4 | static_cast<uintptr_t>(d);
                else
                    ++field;
            }
        }
    }
    ::close(fd);
    if (found)
        *out = stack_range{bounds[0], bounds[1]};
    return found;
}

// The stack that holds `sp`, cached for the thread; false when unknown.
bool stack_of(uintptr_t sp, stack_range* range) {
    if (sp < t_stack.lo_ || sp >= t_stack.hi_) {
        // First walk of the thread, a stack grown down, or another stack
        // (a signal stack).
        if (!find_mapping(sp, &t_stack))
            return false;
    }
    *range = t_stack;
    return true;
}

#endif // __x86_64__

} // namespace

// Not instrumented by the address sanitizer: it reads the saved words of
// other frames, as the runtime's unwinder does.
__attribute__((noinline, no_sanitize_address)) walk_result
walk_stack(void** frames, unsigned max_frames, const void* caller, unsigned* count) noexcept {
    *count = 0;
#if defined(__x86_64__)
    uintptr_t pc;
    uintptr_t sp;
    uintptr_t bp;
    // The three registers at one instruction of this function: the rule found
    // for `pc` describes exactly this stack pointer.
    asm volatile("leaq 0(%%rip), %0\n\t"
                 "movq %%rsp, %1\n\t"
                 "movq %%rbp, %2"
                 : "=r"(pc), "=r"(sp), "=r"(bp));
    forget_unloaded_rules();
    stack_range stack;
    if (!stack_of(sp, &stack))
        return walk_result::give_up;
    bool started = caller == nullptr;
    unsigned skipped = 0;
    unsigned n = 0;
    for (bool first = true; n < max_frames; first = false) {
        frame_rule rule;
        // A return address lies behind its call: the call's own row is the
        // one that describes the frame.
        switch (find_rule(first ? pc : pc - 1, &rule)) {
        case lookup::found:
            break;
        case lookup::no_fde:
            // Code without unwind information: the runtime's unwinder may
            // still go on (a signal restorer it recognises by its code).
        case lookup::unsupported:
            return walk_result::give_up;
        }
        if (rule.ra_undefined_)
            break;
        const uintptr_t cfa = (rule.cfa_rbp_ ? bp : sp) + static_cast<uintptr_t>(rule.cfa_off_);
        if (cfa <= sp || cfa - sp > MAX_FRAME || cfa > stack.hi_ ||
            (rule.rbp_saved_ && cfa + static_cast<uintptr_t>(rule.rbp_off_) < sp))
            return walk_result::give_up;
        if (rule.rbp_saved_)
            bp = *reinterpret_cast<const uintptr_t*>(cfa + static_cast<uintptr_t>(rule.rbp_off_));
        pc = *reinterpret_cast<const uintptr_t*>(cfa + static_cast<uintptr_t>(rule.ra_off_));
        sp = cfa;
        if (pc == 0)
            break;
        if (!started) {
            if (reinterpret_cast<const void*>(pc) != caller) {
                if (++skipped > 256)
                    break;
                continue;
            }
            started = true;
        }
        frames[n++] = reinterpret_cast<void*>(pc);
    }
    *count = n;
    return walk_result::done;
#else
    (void)frames;
    (void)max_frames;
    (void)caller;
    return walk_result::give_up;
#endif
}

unsigned long long library_unloads() noexcept {
    unsigned long long unloads = 0;
    dl_iterate_phdr(read_unloads, &unloads);
    return unloads;
}

} // namespace vrk::host
