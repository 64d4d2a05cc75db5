// Registration of exceptions on the calling thread's list.
//
// The host keeps the head of each thread's list; the older entries are
// chained behind it through the exceptions' own `p_next_reg_`, newest first.
// The address 1 marks an exception that is on no list. Nothing here locks:
// a list belongs to its thread, and only that thread may change the head the
// host keeps, so an exception released elsewhere cannot be taken out of it.
// An exception that leaves its thread (a std::promise, std::async or a copy
// handed over) is unregistered on that thread first; the README says how.
#include "vrk/base/impl/exception_source.hpp"
#include "vrk/exception.hpp"

namespace vrk {

namespace {
const exception* const NOT_REGISTERED = reinterpret_cast<const exception*>(uintptr_t{1});
}

bool exception::register_on_thread_() const noexcept {
    if (p_next_reg_ != NOT_REGISTERED)
        return false;
    vrk_extern::unhandled* host = vrk_extern::import::get_unhandled_callback();
    const exception* head = host->get_registered_exception();
    if (head == this)
        vrk_extern::import::abort(impl::EXCEPTION_SOURCE_FILE, __LINE__,
                                  "Infinite recursion on exc");
    p_next_reg_ = head;
    host->register_exception(*this);
    return true;
}

void exception::register_on_thread() const noexcept {
    if (register_on_thread_())
        vrk_extern::import::get_unhandled_callback()->add_recent_exception(*this);
}

vrk_extern::unhandled* exception::unregister_on_thread_() const noexcept {
    if (p_next_reg_ == NOT_REGISTERED)
        return nullptr;
    vrk_extern::unhandled* host = vrk_extern::import::get_unhandled_callback();
    if (const exception* head = host->get_registered_exception()) {
        if (head == this) {
            if (p_next_reg_ != nullptr)
                host->register_exception(*p_next_reg_);
            else
                host->unregister_exception(*this);
            p_next_reg_ = NOT_REGISTERED;
            return nullptr;
        }
        // An older entry: unlink it behind its newer neighbour; the host's
        // head does not change.
        for (const exception* pred = head;;) {
            const exception* cur = pred->p_next_reg_;
            if (cur == nullptr || cur == NOT_REGISTERED)
                break;
            if (cur == this) {
                pred->p_next_reg_ = p_next_reg_;
                p_next_reg_ = NOT_REGISTERED;
                return nullptr;
            }
            pred = cur;
        }
    }
    // Not on this thread's list. The error is reported by being dropped
    // unseen: registered, then destroyed, it reaches the host's forgotten
    // exception hook and leaves the list as it was.
    {
        logic_error error(impl::EXCEPTION_SOURCE_FILE, __LINE__, ERR_VRK_NOT_REGISTERED,
                          __builtin_return_address(0));
        static_cast<const exception&>(error).register_on_thread_();
    }
    return host;
}

void exception::unregister_on_thread() const noexcept {
    if (vrk_extern::unhandled* host = unregister_on_thread_()) {
        host->unhandled_exception(*this);
        p_next_reg_ = NOT_REGISTERED;
    }
}

const exception* exception::get_next_registered() const noexcept {
    return p_next_reg_ == NOT_REGISTERED ? nullptr : p_next_reg_;
}

const exception* exception::get_first_registered() noexcept {
    const exception* head =
        vrk_extern::import::get_unhandled_callback()->get_registered_exception();
    return head == NOT_REGISTERED ? nullptr : head;
}

} // namespace vrk
