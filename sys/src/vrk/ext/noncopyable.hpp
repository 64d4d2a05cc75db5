// vrk/ext/noncopyable.hpp: a base that forbids copying its derived class.
#pragma once

namespace vrk {

class non_copyable {
protected:
    non_copyable() noexcept = default;
    ~non_copyable() = default;

public:
    non_copyable(const non_copyable&) = delete;
    non_copyable& operator=(const non_copyable&) = delete;
};

} // namespace vrk
