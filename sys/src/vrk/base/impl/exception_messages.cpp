// Provisional: writes a node's text unexpanded until message expansion lands.
#include "vrk/exception.hpp"
#include "vrk/ostream.hpp"

namespace vrk {
ostream& exception_node::expand(ostream& stream) const { return stream << message(); }
} // namespace vrk
