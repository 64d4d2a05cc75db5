// Every live thrown exception is on its thread's list until it is handled.
#include "vrk/exception.hpp"

const vrk::error_code ERR_BUSY{7007, "Device busy", nullptr};

int main() {
    bool listed = false;
    try {
        VRK_THROW(vrk::runtime_error, ERR_BUSY);
    } catch (const vrk::exception& e) {
        listed = vrk::exception::get_first_registered() == &e; // the one in flight
        e.dump(); // tells the host's caught_exception, marks it processed
    }
    // Handled and gone: the list is empty again.
    return listed && vrk::exception::get_first_registered() == nullptr ? 0 : 1;
}
