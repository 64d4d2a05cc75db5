// vrk/locale.hpp: the minimal locale of the vrk streams: a fixed table of
// facet pointers, looked up by facet id.
//
// A locale never owns its facets and never allocates: the classic facets are
// static objects, and a facet installed by a user must outlive every locale
// and stream that refers to it. Copying a locale copies the table. Lookups
// never throw; a missing facet answers null.
#pragma once

#include <cstddef>

namespace vrk {

class locale {
public:
    // Base of every facet. Facets are immutable after construction and may
    // be shared by any number of locales and threads.
    class facet {
    public:
        facet(const facet&) = delete;
        facet& operator=(const facet&) = delete;

    protected:
        constexpr facet() noexcept = default;
        virtual ~facet();
    };

    // A facet's slot in the table. The library's facets use the fixed slots
    // below; a user facet takes one of the free slots.
    class id {
    public:
        constexpr explicit id(size_t index) noexcept : index_(index) {}
        constexpr size_t index() const noexcept { return index_; }

    private:
        size_t index_;
    };

    static constexpr size_t MAX_FACETS = 8;
    static constexpr size_t CTYPE_ID = 0;
    static constexpr size_t NUM_PUT_ID = 1;
    static constexpr size_t NUM_GET_ID = 2;
    static constexpr size_t FIRST_USER_ID = 3;

    // The classic locale: ctype<char>, num_put and num_get.
    locale() noexcept;
    locale(const locale&) noexcept = default;
    locale& operator=(const locale&) noexcept = default;
    ~locale() = default;

    // `other` with the facet of slot `i` replaced by `f`; a null `f` removes
    // it. An out-of-range slot leaves the copy unchanged.
    locale(const locale& other, const id& i, const facet* f) noexcept;

    static const locale& classic() noexcept;
    // A locale without any facet; streams over it fail where they need one.
    static locale none() noexcept;

    // The facet of slot `slot`, or null when the locale has none there.
    const facet* getFacet_(size_t slot) const noexcept {
        return slot < MAX_FACETS ? p_facets_[slot] : nullptr;
    }
    // The facet of slot `slot`; the caller has checked it with getFacet_.
    const facet& useFacet_(size_t slot) const noexcept { return *p_facets_[slot]; }

private:
    struct none_tag {};
    explicit locale(none_tag) noexcept;

    const facet* p_facets_[MAX_FACETS];
};

namespace impl {

// The table slot of facet class F (its static `id`).
template <class F> constexpr size_t getFacetId() noexcept { return F::id.index(); }

} // namespace impl

template <class F> bool has_facet(const locale& loc) noexcept {
    return loc.getFacet_(impl::getFacetId<F>()) != nullptr;
}

// The facet F of `loc`; the caller has checked it with has_facet.
template <class F> const F& use_facet(const locale& loc) noexcept {
    return static_cast<const F&>(loc.useFacet_(impl::getFacetId<F>()));
}

} // namespace vrk
