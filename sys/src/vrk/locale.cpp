// The classic locale and its static facets.
#include "vrk/locale.hpp"

#include "vrk/base/ctype.hpp"
#include "vrk/base/num_get.hpp"
#include "vrk/base/num_put.hpp"

namespace vrk {

locale::facet::~facet() = default;

namespace {

// The classic facets live for the whole process; function-local statics so
// that a locale built during static initialisation finds them constructed.
const locale& classic_locale() noexcept {
    static const ctype<char> ctype_facet;
    static const num_put num_put_facet;
    static const num_get num_get_facet;
    static const locale loc =
        locale(locale(locale(locale::none(), locale::id(locale::CTYPE_ID), &ctype_facet),
                      locale::id(locale::NUM_PUT_ID), &num_put_facet),
               locale::id(locale::NUM_GET_ID), &num_get_facet);
    return loc;
}

} // namespace

locale::locale(none_tag) noexcept : p_facets_{} {}

locale::locale() noexcept : locale(classic_locale()) {}

locale::locale(const locale& other, const id& i, const facet* f) noexcept : locale(other) {
    if (i.index() < MAX_FACETS)
        p_facets_[i.index()] = f;
}

const locale& locale::classic() noexcept { return classic_locale(); }

locale locale::none() noexcept { return locale(none_tag{}); }

} // namespace vrk
