// Stand-in until message arguments land: arguments are dropped. Weak, so the
// real definition wins as soon as it is linked in; deleted with that merge.
#include "vrk/exception.hpp"

namespace vrk {
__attribute__((weak)) void exception::define_argument(const char*, const char*, bool) noexcept {}
} // namespace vrk
