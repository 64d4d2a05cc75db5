// The bad-allocation fallback text and the upper-case hexadecimal digits.
#include "vrk/base/impl/bad_alloc_text.hpp"

#include <atomic>
#include <cstring>

#include "vrk/ext/itoa.hpp"

namespace vrk::impl {

namespace {

constexpr int NUMBER_POS = 15, NUMBER_WIDTH = 11;
constexpr int FILE_POS = 28, FILE_WIDTH = 64;
constexpr int LINE_POS = 93, LINE_WIDTH = 6;

// One template for the whole process, constant-initialized, so that no
// thread ever allocates to reach it (a thread_local array in a library loaded
// with dlopen is allocated on a thread's first access, exactly when memory has
// run out). No lock is taken: each character of a field is stored with a
// relaxed atomic store, and only when it changes, so concurrent calls never
// race with each other, and repeating a report stores nothing. A caller that
// reads the text while another thread reports a different exception may see
// fields of that call, character by character.
char EXP_BAD_ALLOC_TEMPLATE[165] =
    "exception: no.             (                                                                :"
    "      ). No further info because of bad allocation in exception object.";
static_assert(sizeof(EXP_BAD_ALLOC_TEMPLATE) == 165);

// Copies a field built on the stack into the shared template.
void store_field(int pos, const char* field, int width) noexcept {
    for (int i = 0; i < width; ++i) {
        std::atomic_ref<char> c(EXP_BAD_ALLOC_TEMPLATE[pos + i]);
        if (c.load(std::memory_order_relaxed) != field[i])
            c.store(field[i], std::memory_order_relaxed);
    }
}

// Zero padding in front of a right-aligned number becomes blanks.
void blank_leading_zeros(char* field, int width) noexcept {
    for (int i = 0; i < width && field[i] == '0'; ++i)
        field[i] = ' ';
}

struct HexInitializer {
    HexInitializer() noexcept { (void)vrkExpHexCode(); }
};
const HexInitializer vrkHexCode_initialzer;

} // namespace

const char* const EXP_BAD_ALLOC_MSG[4] = {
    "Bad allocation in exception object", "Bad allocation in exception parameter",
    "Bad allocation in exception callback trace", "Bad allocation in exception message"};

const char* vrkExpHexCode() noexcept {
    static constexpr char VRK_EXP_HEX_CODE[17] = "0123456789ABCDEF";
    return VRK_EXP_HEX_CODE;
}

const char* getBadAllocMsg(int err_no, const char* p_file, int line) noexcept {
    // Each field is built in full on the stack, then stored.
    char field[FILE_WIDTH];

    // File name, right-aligned, its last 64 characters at most.
    const size_t len = p_file != nullptr ? std::strlen(p_file) : 0;
    const size_t shown = len < FILE_WIDTH ? len : FILE_WIDTH;
    std::memset(field, ' ', FILE_WIDTH - shown);
    if (shown != 0)
        std::memcpy(field + FILE_WIDTH - shown, p_file + len - shown, shown);
    store_field(FILE_POS, field, FILE_WIDTH);

    // Error number: 11 zero-padded characters, padding blanked (the sign
    // stays in front of the digits since the padding stands before it).
    iToA<int>(err_no, field, FILE_WIDTH, 10, NUMBER_WIDTH);
    blank_leading_zeros(field, NUMBER_WIDTH);
    store_field(NUMBER_POS, field, NUMBER_WIDTH);

    // Line: six characters; a longer number keeps its last six digits and
    // the conversion's report of the cut is ignored.
    iToA<int>(line, field, FILE_WIDTH, 10, LINE_WIDTH);
    blank_leading_zeros(field, LINE_WIDTH);
    store_field(LINE_POS, field, LINE_WIDTH);
    return EXP_BAD_ALLOC_TEMPLATE;
}

} // namespace vrk::impl
