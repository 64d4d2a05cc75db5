// vrkexc demo: an error raised in a worker thread, wrapped with typed
// arguments and an exception argument in nested functions of the main
// thread, caught, printed, serialized and decoded again.
#include <cstring>
#include <new>
#include <optional>
#include <thread>

#include "tool.hpp"
#include "vrk/exception.hpp"
#include "vrk/sstream.hpp"

namespace vrkexc {

namespace {

const char* const HELP = "usage: vrkexc demo\n"
                         "\n"
                         "Throws a chained exception (from a worker thread and nested functions,\n"
                         "with typed arguments and an exception argument), catches it, prints the\n"
                         "long and the short form, serializes it, decodes the bytes again and\n"
                         "checks that the decoded exception prints exactly like the original.\n"
                         "Exit status 0 when it does.\n";

const char* const SRC = "tools/vrkexc/demo.cpp";

const vrk::error_code ERR_SECTOR{6001, "Cannot read sector $SECTOR$ of $DEVICE$", nullptr};
const vrk::error_code ERR_CHECKSUM{6002, "Checksum of block $BLOCK$ failed after $TRIES$ tries",
                                   nullptr};
const vrk::error_code ERR_FIELD{6003, "Field $FIELD$ is empty", nullptr};
const vrk::error_code ERR_SAVE{6004, "Saving $DOC$ failed ($RATIO$ written)", nullptr};

} // namespace

// The demo's throwing functions have external linkage, so that the default
// host can name them in the throw locations.
namespace demo {

// --- worker thread: the cause ------------------------------------------------

[[noreturn]] __attribute__((noinline)) void read_sector(unsigned long sector) {
    VRK_THROW_AT(SRC, __LINE__, vrk::runtime_error, ERR_SECTOR)
        << vrk::msgarg_uint64("SECTOR", sector) << vrk::msgarg_text("DEVICE", "/dev/sdb1");
}

__attribute__((noinline)) void checksum_block(int block) {
    try {
        read_sector(81920ul + static_cast<unsigned long>(block) * 8);
    } catch (const vrk::exception& cause) {
        VRK_THROW_AT(SRC, __LINE__, vrk::runtime_error, ERR_CHECKSUM)
            << vrk::msgarg_int("BLOCK", block) << vrk::msgarg_int("TRIES", 3)
            << cause; // the cause travels behind
    }
}

// Runs on the worker; hands the error over to the joining thread. A caught
// exception is registered on the worker's list: leave it before the copy
// crosses threads.
void worker(std::optional<vrk::exception>& result) {
    try {
        checksum_block(17);
    } catch (const vrk::exception& e) {
        e.unregister_on_thread();
        result.emplace(e);
    }
}

// --- main thread: the context -------------------------------------------------

__attribute__((noinline)) vrk::exception validation_note() {
    vrk::exception note(SRC, __LINE__, ERR_FIELD, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
    note << vrk::msgarg_text("FIELD", "author");
    note.mark_processed();
    return note;
}

[[noreturn]] __attribute__((noinline)) void write_journal(const vrk::exception& cause) {
    VRK_THROW_AT(SRC, __LINE__, vrk::runtime_error, ERR_SAVE)
        << vrk::msgarg_text("DOC", "report.odt") << vrk::msgarg_double("RATIO", 0.75)
        << vrk::error_message(SRC, __LINE__, 6005,
                              "Journal segment $SEGMENT$ of $TOTAL$; note: $NOTE$")
        << vrk::msgarg_uint("SEGMENT", 17u) << vrk::msgarg_uint("TOTAL", 20u)
        << vrk::msgarg_exc("NOTE", validation_note()) << cause;
}

__attribute__((noinline)) void save_document() {
    std::optional<vrk::exception> cause;
    std::thread t(worker, std::ref(cause));
    t.join();
    if (cause)
        write_journal(*cause);
}

} // namespace demo

namespace {
void heading(const char* title) { out() << "\n=== " << title << " ===\n"; }
} // namespace

int cmd_demo(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            out() << HELP;
            return 0;
        }
        err() << "vrkexc demo: unexpected argument '" << argv[i] << "'\n" << HELP;
        return EXIT_USAGE;
    }
    vrk::allocator& ma = tool_allocator();
    try {
        try {
            demo::save_document();
            err() << "vrkexc demo: nothing was thrown\n";
            return EXIT_BAD_INPUT;
        } catch (const vrk::exception& e) {
            heading("long form");
            vrk::osstream long_text(ma);
            e.print(long_text);
            vrk::string original = long_text.str();
            out() << original.c_str();

            heading("short form");
            vrk::string short_text = e.what(ma, true);
            out() << short_text.c_str();

            heading("serialized");
            vrk::osstream bytes(ma);
            e.serialize(bytes, false);
            vrk::string data = bytes.str();
            out() << data.size() << " bytes; the first 64:\n";
            write_hex(out(), data.data(), data.size() < 64 ? data.size() : 64);

            heading("decoded");
            vrk::isstream in(data.data(), data.size(), ma);
            auto back = vrk::exception::deserialize(in, ma);
            vrk::osstream decoded_text(ma);
            back->print(decoded_text);
            vrk::string decoded = decoded_text.str();
            out() << decoded.c_str();

            const bool same = decoded.size() == original.size() &&
                              std::memcmp(decoded.data(), original.data(), original.size()) == 0;
            heading("check");
            out() << "decoded form matches the original: " << (same ? "yes" : "NO") << "\n";
            return same ? 0 : EXIT_BAD_INPUT;
        }
    } catch (const std::bad_alloc&) {
        err() << "vrkexc demo: out of memory\n";
        return EXIT_BAD_INPUT;
    }
}

} // namespace vrkexc
