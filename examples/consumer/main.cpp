#include <cstdio>

#include "vrk/exception.hpp"

int main() {
    const vrk::error_code code{42, "consumer error", nullptr};
    try {
        vrk::runtime_error e("consumer/main.cpp", __LINE__, code);
        e.register_on_thread();
        e.do_throw();
    } catch (const vrk::exception& e) {
        e.mark_processed();
        std::printf("caught %d: %s\n", e.error_no(), e.what());
        return e.error_no() == 42 ? 0 : 1;
    }
    return 1;
}
