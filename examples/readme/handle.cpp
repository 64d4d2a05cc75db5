// A vrk::exception is a small handle; its copies share one counted block.
#include <cstdio>

#include "vrk/exception.hpp"

const vrk::error_code ERR_NO_SPACE{7001, "No space left on the volume", nullptr};

int main() {
    vrk::exception e("app/volume.cpp", 12, ERR_NO_SPACE);
    vrk::exception copy = e; // one more reference to the same block
    const bool shared = copy == e && copy.data() == e.data();
    copy.mark_processed(); // the flag lives in the block: e is processed too
    std::printf("%d at %s:%d: %s\n", e.error_no(), e.file().get(), e.line(), e.what());
    return shared && e.error_no() == 7001 ? 0 : 1;
} // both handles go; the last one releases the block
