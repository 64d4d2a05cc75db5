// The parameters a text does not mention follow it: the same list whether
// the text substitutes a few records (remembered while writing) or more
// than the writer remembers (found by scanning again).
#include <string>

#include "support/test_host.hpp"

namespace {

using vrk::exception;

class MessageRemainder : public vrk_test::host_fixture {};

std::string expanded(const exception& e) {
    char buf[2048];
    const size_t len = e.begin()->expand(buf, sizeof buf);
    return std::string(buf, len);
}

TEST_F(MessageRemainder, SameListWithFewAndManyPlaceholders) {
    for (int count : {3, 16, 17, 24}) {
        SCOPED_TRACE(count);
        std::string text, want;
        // Appended piece by piece: g++ 12 at -O3 warns (-Wrestrict) about
        // a literal + std::string temporary here.
        for (int i = 0; i < count; ++i) {
            text.append("$P").append(std::to_string(i)).append("$ ");
            want.append(i == 1 ? "r" : std::string(1, 'v').append(std::to_string(i))).append(" ");
        }
        exception e("f", 1, vrk::error_code{1, text.c_str(), nullptr},
                    exception::CALLER_SUPPRESS_STACK_TRACE);
        e.define_argument("X", "x", false);
        for (int i = 0; i < count; ++i)
            e.define_argument(std::string(1, 'P').append(std::to_string(i)).c_str(),
                              std::string(1, 'v').append(std::to_string(i)).c_str(), false);
        e.define_argument("P1", "r", true); // a replacement of a mentioned name
        e.define_argument("Y", "y1", false);
        e.define_argument("Y", "y2", true); // the unmentioned list shows the winner
        EXPECT_EQ(expanded(e), want + " [X=x, Y=y2]");
    }
}

} // namespace
