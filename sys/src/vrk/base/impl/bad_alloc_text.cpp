// The bad-allocation fallback text and the upper-case hexadecimal digits.
#include "vrk/base/impl/bad_alloc_text.hpp"

#include <cstring>

#include "vrk/ext/itoa.hpp"

namespace vrk::impl {

namespace {

constexpr char INITIAL_TEMPLATE[] =
    "exception: no.             (                                                                :"
    "      ). No further info because of bad allocation in exception object.";
static_assert(sizeof(INITIAL_TEMPLATE) == 165);

constexpr int NUMBER_POS = 15, NUMBER_WIDTH = 11;
constexpr int FILE_POS = 28, FILE_WIDTH = 64;
constexpr int LINE_POS = 93, LINE_WIDTH = 6;

// One template per thread rather than one per process: threads that report
// exceptions without memory at the same moment then never write the text
// another thread is reading. It lives in static thread storage, so filling it
// allocates nothing.
thread_local char EXP_BAD_ALLOC_TEMPLATE[165] = {};

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
    char* const t = EXP_BAD_ALLOC_TEMPLATE;
    if (t[0] == '\0')
        std::memcpy(t, INITIAL_TEMPLATE, sizeof INITIAL_TEMPLATE);

    // File name, right-aligned, its last 64 characters at most.
    const size_t len = p_file != nullptr ? std::strlen(p_file) : 0;
    const size_t shown = len < FILE_WIDTH ? len : FILE_WIDTH;
    std::memset(t + FILE_POS, ' ', FILE_WIDTH - shown);
    if (shown != 0)
        std::memcpy(t + FILE_POS + FILE_WIDTH - shown, p_file + len - shown, shown);

    // Error number: 11 zero-padded characters, padding blanked (the sign
    // stays in front of the digits since the padding stands before it).
    iToA<int>(err_no, t + NUMBER_POS, 150, 10, NUMBER_WIDTH);
    blank_leading_zeros(t + NUMBER_POS, NUMBER_WIDTH);

    // Line: six characters; a longer number keeps its last six digits and
    // the conversion's report of the cut is ignored.
    iToA<int>(line, t + LINE_POS, 72, 10, LINE_WIDTH);
    blank_leading_zeros(t + LINE_POS, LINE_WIDTH);
    return t;
}

} // namespace vrk::impl
