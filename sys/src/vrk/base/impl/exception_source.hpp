// Internal header of the exception core; not installed.
// vrk/base/impl/exception_source.hpp: the source location the exception core
// reports in aborts and in the errors it raises itself.
#pragma once

namespace vrk::impl {

inline constexpr const char* EXCEPTION_SOURCE_FILE = "sys/src/vrk/base/impl/exception";

} // namespace vrk::impl
