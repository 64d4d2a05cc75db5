// vrk/base/faultprot_cstring.hpp: a non-owning holder of a C string, used for
// the file names that exceptions carry.
//
// It never copies or frees the text. A null pointer reads as the empty text:
// its length is 0 and printing it writes nothing.
#pragma once

#include <cstddef>

#include "vrk/iosfwd.hpp"

namespace vrk {

class faultprot_cstring {
public:
    faultprot_cstring() noexcept = default;
    faultprot_cstring(const char* s) noexcept : str_(s) {} // NOLINT: implicit by design
    faultprot_cstring(const faultprot_cstring&) noexcept = default;
    faultprot_cstring& operator=(const faultprot_cstring&) noexcept = default;

    const char* get() const noexcept { return str_; }
    operator const char*() const noexcept { return str_; } // NOLINT: implicit by design
    void set(const char* s) noexcept { str_ = s; }

    // True when a text is held. Pointers that cannot be read are not probed:
    // the facility only ever stores names it was given by the host.
    bool is_valid() const noexcept { return str_ != nullptr; }

    // Length of the text, 0 for null.
    size_t len() const noexcept;

    // Copies at most `n` characters into `dst` and terminates it when room
    // remains (as strncpy, but without zero padding); returns the characters
    // copied. Nothing is written when `n` is 0.
    size_t ncpy(char* dst, size_t n) const noexcept;

    // Writes the text to `os`; writes nothing for null.
    void print(vrk::ostream& os) const;

private:
    const char* str_ = nullptr;
};

} // namespace vrk
