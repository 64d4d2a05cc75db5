// The long form (for logs) and the short form (one line per message).
#include <cstdio>

#include "heap.hpp"
#include "vrk/exception.hpp"
#include "vrk/sstream.hpp"

const vrk::error_code ERR_TIMEOUT{7006, "Request timed out", nullptr};

int main() {
    counting_heap heap;
    try {
        VRK_THROW(vrk::runtime_error, ERR_TIMEOUT);
    } catch (const vrk::exception& e) {
        vrk::osstream log(heap);
        log << e; // heading, message, "exception throw location:" and the frames
        std::printf("%s", log.c_str());
        const vrk::string line = e.what(heap, true); // without the stack
        std::printf("%s", line.c_str());
    }
    return heap.live == 0 ? 0 : 1; // every text went back to the heap
}
