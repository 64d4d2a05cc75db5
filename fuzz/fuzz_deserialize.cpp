// Fuzz target: vrk::exception::deserialize over arbitrary bytes. Every input
// must either decode into an exception that prints, serializes again into
// bytes that decode to the same text and of which no proper prefix decodes,
// and releases cleanly, or raise a vrk::exception; nothing may leak or crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "support/test_allocator.hpp"
#include "vrk/exception.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/sstream.hpp"

namespace {

// A derived class's creator under type number 1: its header carries one
// extra word. Lets the fuzzer reach the registry and the creator path.
class typed_exception : public vrk::exception {
public:
    static vrk::auto_ptr<vrk::exception, vrk::default_deleter> create(vrk::istream& inp,
                                                                      vrk::allocator& alloc) {
        const uint32_t extra = read_int(inp);
        if (extra == 0)
            return {}; // a creator may decline
        vrk::auto_ptr<vrk::exception, vrk::default_deleter> result;
        ::new (vrk::auto_ptr_mem_ref(result), alloc, 0) typed_exception();
        return result;
    }

private:
    typed_exception() noexcept : exception(nullptr) {}
};

const bool registered = vrk::register_exception_type(1, &typed_exception::create);

// True when `bytes`, written without error, decode to an exception whose long
// form is `long_form`: imported texts have no parameters and stack sections
// travel as text, so a second round trip changes nothing.
bool reads_back_as(vrk::osstream& bytes, vrk::osstream& long_form, vrk::allocator& alloc) {
    if (!bytes.good())
        return false;
    vrk::string written = bytes.str();
    vrk::isstream in(written.data(), written.size(), alloc);
    try {
        auto back = vrk::exception::deserialize(in, alloc);
        vrk::osstream text(alloc);
        back->print_default(text, false, false);
        vrk::string a = text.str(), b = long_form.str();
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
    } catch (const vrk::exception& bad) {
        bad.mark_processed();
        return false; // our own bytes must read back
    }
}

// True when no proper prefix of `bytes` decodes into an exception: every
// cut, inside a text or between words, must raise an error. Long outputs are
// cut at about 1024 evenly spaced places and at each of their last 64 bytes,
// so one input costs a bounded number of decodes, not one per byte.
bool prefixes_fail(vrk::osstream& bytes, vrk::allocator& alloc) {
    vrk::string written = bytes.str();
    const size_t size = written.size();
    const size_t stride = size <= 4096 ? 1 : size / 1024;
    for (size_t n = 0; n < size; n += (n + 64 < size ? stride : 1)) {
        vrk::isstream in(written.data(), n, alloc);
        try {
            if (vrk::exception::deserialize(in, alloc))
                return false;
        } catch (const vrk::exception& bad) {
            bad.mark_processed();
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Counts what the decoded object and the texts take, so a leak or a
    // double release is caught on the input that caused it, not at exit.
    static vrk_test::test_allocator alloc;
    (void)registered;
    {
        vrk::isstream in(reinterpret_cast<const char*>(data), size, alloc);
        try {
            auto e = vrk::exception::deserialize(in, alloc);
            if (e) {
                vrk::osstream text(alloc);
                e->print_default(text, false, false);
                vrk::string short_form = e->what(alloc, false);
                vrk::osstream again(alloc);
                e->serialize(again, false);
                if (e->data() != nullptr && !reads_back_as(again, text, alloc))
                    std::abort(); // a text was lost on the way
                if (again.good() && !prefixes_fail(again, alloc))
                    std::abort(); // a cut input taken for a whole one
            }
        } catch (const vrk::exception& bad) {
            bad.mark_processed();
        }
    }
    if (alloc.balance() != 0 || alloc.bad_releases() != 0)
        std::abort(); // the object or a text leaked, or went back twice
    return 0;
}
