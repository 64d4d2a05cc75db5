// Length, copy and printing of a held file name.
#include "vrk/base/faultprot_cstring.hpp"

#include <cstring>

#include "vrk/ostream.hpp"

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

void faultprot_cstring::print(vrk::ostream& os) const {
    if (str_ != nullptr)
        os << str_;
}

} // namespace vrk
