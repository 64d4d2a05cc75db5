// Messages with $NAME$ placeholders and typed arguments.
#include <cstdio>
#include <cstring>

#include "heap.hpp"
#include "vrk/exception.hpp"

const vrk::error_code ERR_READ{7004, "Cannot read $FILE$ at offset $OFFSET$", nullptr};

int main() {
    counting_heap heap;
    try {
        VRK_THROW(vrk::runtime_error, ERR_READ)
            << vrk::msgarg_text("FILE", "index.db") << vrk::msgarg_uint64("OFFSET", 4096)
            << vrk::msgarg_int("ERRNO", 5) // not in the text: listed behind it
            << vrk::error_message(__FILE__, __LINE__, 7005, "While opening $WHAT$")
            << vrk::msgarg_text("WHAT", "the catalogue");
    } catch (const vrk::exception& e) {
        const vrk::string text = e.what(heap, true); // one line per message
        std::printf("%s", text.c_str());
        return std::strcmp(text.c_str(), "exception 7004: Cannot read index.db at offset 4096"
                                         " [ERRNO=5]\nexception 7005: While opening the "
                                         "catalogue\n") == 0 &&
                       std::strcmp(e.get_msgarg_by_name("FILE"), "index.db") == 0
                   ? 0
                   : 1;
    }
}
