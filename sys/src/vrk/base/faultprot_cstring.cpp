// Length and copy of a held file name; printing lives with the streams.
#include "vrk/base/faultprot_cstring.hpp"

#include <cstring>

namespace vrk {

size_t faultprot_cstring::len() const noexcept { return str_ != nullptr ? std::strlen(str_) : 0; }

size_t faultprot_cstring::ncpy(char* dst, size_t n) const noexcept {
    if (n == 0)
        return 0;
    size_t i = 0;
    if (str_ != nullptr)
        for (; i < n && str_[i] != '\0'; ++i)
            dst[i] = str_[i];
    if (i < n)
        dst[i] = '\0';
    return i;
}

} // namespace vrk
