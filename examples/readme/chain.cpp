// Throwing with VRK_THROW, and chaining the cause behind a new error.
#include <cstdio>

#include "vrk/exception.hpp"

const vrk::error_code ERR_DISK_FULL{7002, "Disk full", nullptr};
const vrk::error_code ERR_SAVE_FAILED{7003, "Saving failed", nullptr};

[[noreturn]] void write_journal() { VRK_THROW(vrk::runtime_error, ERR_DISK_FULL); }

void save() {
    try {
        write_journal();
    } catch (const vrk::exception& cause) {
        VRK_THROW(vrk::runtime_error, ERR_SAVE_FAILED) << cause; // cause goes behind
    }
}

int main() {
    try {
        save();
    } catch (const vrk::runtime_error& e) {
        // Walk the chain, and the messages of each exception.
        for (vrk::exception x = e; x.data() != nullptr; x = x.get_next())
            for (const vrk::exception_node& node : x)
                std::printf("%d: %s\n", x.error_no(), node.message());
        return e.get_next().is_identified_by(ERR_DISK_FULL) ? 0 : 1;
    }
    return 1;
}
