// A class derived from vrk::exception that survives serialization as its
// own class: it writes its own type header (type number and an HTTP status),
// registers the creator that reads that header back, and comes out of a
// round trip through bytes as an http_error with its status.
#include <cstdio>
#include <cstdlib>
#include <new>

#include "vrk/exception.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/sstream.hpp"

namespace {

const vrk::error_code ERR_HTTP{7100, "Request to $URL$ failed", nullptr};

class http_error : public vrk::exception {
public:
    // Unique among the registered classes; 0 belongs to vrk::exception.
    static constexpr unsigned short TYPE = 0x0100;

    http_error(const char* fname, int line, const vrk::error_code& code, uint32_t status)
        : exception(fname, line, code, CALLER_SUPPRESS_STACK_TRACE), status_(status) {}

    uint32_t status() const noexcept { return status_; }

    void do_throw() override {
        prepare_throw_();
        throw *this;
    }

    // Reads what store_type wrote after the type word and makes an empty
    // object for the body to be read into. The owning placement allocation
    // gives the memory to `result` before the constructor runs, so a
    // constructor that throws leaks nothing.
    static vrk::auto_ptr<vrk::exception, vrk::default_deleter> create(vrk::istream& inp,
                                                                      vrk::allocator& alloc) {
        const uint32_t status = read_int(inp);
        vrk::auto_ptr<vrk::exception, vrk::default_deleter> result;
        ::new (vrk::auto_ptr_mem_ref(result), alloc, 0) http_error(status);
        return result;
    }

    static bool register_type() noexcept { return vrk::register_exception_type(TYPE, &create); }

protected:
    void store_type(vrk::ostream& out) const override {
        write_int(out, TYPE_MARK | TYPE);
        write_int(out, status_);
    }

private:
    explicit http_error(uint32_t status) noexcept : exception(nullptr), status_(status) {}
    uint32_t status_;
};

using vrk::heap_allocator;

} // namespace

int main() {
    heap_allocator heap;
    if (!http_error::register_type()) {
        std::puts("type number already taken");
        return 1;
    }
    http_error sent("examples/derived_exception.cpp", __LINE__, ERR_HTTP, 503);
    sent << vrk::msgarg_text("URL", "https://example.invalid/api");

    vrk::osstream bytes(heap);
    sent.serialize(bytes, true);
    vrk::string data = bytes.str();

    vrk::isstream in(data.data(), data.size(), heap);
    auto back = vrk::exception::deserialize(in, heap);
    const auto* http = dynamic_cast<const http_error*>(back.get());
    vrk::string text = back->what(heap, true);
    std::printf("%zu bytes, type word %02X %02X %02X %02X\n%s", data.size(),
                static_cast<unsigned char>(data.data()[0]),
                static_cast<unsigned char>(data.data()[1]),
                static_cast<unsigned char>(data.data()[2]),
                static_cast<unsigned char>(data.data()[3]), text.c_str());
    if (http == nullptr) {
        std::puts("FAILED: the decoded exception is not an http_error");
        return 1;
    }
    std::printf("decoded as http_error, status %u\n", http->status());
    return http->status() == 503 ? 0 : 1;
}
