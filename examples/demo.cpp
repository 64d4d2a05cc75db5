// A small tour of the exception facility with the default host: an error
// thrown deep in a worker, caught, wrapped in a higher-level error with a
// further message, and walked as a chain.
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/sstream.hpp"

namespace {
const vrk::error_code ERR_DISK_FULL{5001, "Disk full while writing $FILE$", nullptr};
const vrk::error_code ERR_SAVE_FAILED{5002, "Saving the document failed", nullptr};
} // namespace

// Functions with external linkage: exported from the demo, so the default
// host names them in traces even without debug information.
namespace demo {

[[noreturn]] void write_journal();
void save_document();

void write_journal() {
    VRK_THROW(vrk::runtime_error, ERR_DISK_FULL)
        << vrk::msgarg_text("FILE", "journal.db")
        << vrk::error_message(__FILE__, __LINE__, 5001, "Journal segment $SEGMENT$ of $COUNT$")
        << vrk::msgarg_int("SEGMENT", 17) << vrk::msgarg_int("COUNT", 20);
}

void save_document() {
    try {
        write_journal();
    } catch (const vrk::exception& cause) {
        // The cause travels behind the new error.
        VRK_THROW(vrk::runtime_error, ERR_SAVE_FAILED) << cause;
    }
}

} // namespace demo

namespace {

void print_chain(const vrk::exception& head) {
    int depth = 0;
    for (vrk::exception x = head; x.data() != nullptr; x = x.get_next(), ++depth) {
        std::printf("%*s[%d] error %d at %s:%d, %u frames recorded\n", depth * 2, "", depth,
                    x.error_no(), x.file().get(), x.line(), x.data()->buff_sz_);
        for (const vrk::exception_node& node : x)
            std::printf("%*s    %s\n", depth * 2, "", node.message());
    }
}

using vrk::heap_allocator;

} // namespace

int main() {
    int status = 1;
    std::thread worker([&] {
        try {
            demo::save_document();
        } catch (const vrk::exception& e) {
            std::printf("caught on the worker thread: %s\n", e.what());
            print_chain(e);
            heap_allocator heap;
            vrk::osstream long_form(heap);
            long_form << e;
            std::printf("\nlong form:\n%s", long_form.c_str());
            vrk::string short_form = e.what(heap, true);
            std::printf("\nshort form:\n%s", short_form.c_str());
            status =
                e.is_identified_by(ERR_SAVE_FAILED) && e.get_next().is_identified_by(ERR_DISK_FULL)
                    ? 0
                    : 1;
        }
    });
    worker.join();
    std::printf(status == 0 ? "demo: ok\n" : "demo: unexpected chain\n");
    return status;
}
