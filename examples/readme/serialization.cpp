// An exception chain travels as bytes and is rebuilt on the other side.
#include <cstring>

#include "heap.hpp"
#include "vrk/exception.hpp"
#include "vrk/sstream.hpp"

const vrk::error_code ERR_QUOTA{7010, "Quota of $USER$ exceeded", nullptr};

int main() {
    counting_heap heap;
    bool same = false;
    {
        vrk::runtime_error e("app/quota.cpp", 12, ERR_QUOTA);
        e << vrk::msgarg_text("USER", "ada");
        vrk::osstream bytes(heap);
        e.serialize(bytes, true); // true: leave the throw location out
        vrk::string wire = bytes.str();

        vrk::isstream in(wire.data(), wire.size(), heap);
        auto back = vrk::exception::deserialize(in, heap); // auto_ptr on `heap`
        vrk::string text = back->what(heap, true);
        same = std::strcmp(text.c_str(), "exception 7010: Quota of ada exceeded\n") == 0;
    }
    return same && heap.live == 0 ? 0 : 1;
}
