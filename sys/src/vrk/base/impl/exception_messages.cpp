// Named arguments of an exception's messages: attaching them, looking them
// up through the chain, and expanding a node's message. Never throws into
// the exception's owner: a parameter that cannot be allocated is recorded
// on its node as PARAM_FAILED.
#include "vrk/exception.hpp"

#include <cstring>

#include "vrk/ostream.hpp"

namespace vrk {

// ---------------------------------------------------------------------------
// Nodes

void exception_node::new_param_(allocator& ma, const char* name, const char* val_str,
                                bool force) noexcept {
    if (out_of_memory() || !msg_owner_)
        return;
    if (!msg_param_.new_param(ma, name, val_str, force))
        bad_alloc_ = PARAM_FAILED;
}

void exception_node::expand_(msg_parameter::out_ifc& out_stream) const {
    if (msg_owner_) {
        msg_param_.expand(out_stream);
        return;
    }
    if (align_ != nullptr)
        out_stream.write(align_, std::strlen(align_));
}

ostream& exception_node::expand(ostream& stream) const {
    msg_write_stream out(stream);
    expand_(out);
    return stream;
}

size_t exception_node::expand(char* buffer, size_t buf_size) const noexcept {
    msg_byte_stream out(buffer, buf_size);
    expand_(out);
    return out.size();
}

// ---------------------------------------------------------------------------
// The exception's arguments

void exception::define_argument(const char* name, const char* val_str, bool force) noexcept {
    if (p_fst_ == nullptr || name == nullptr)
        return;
    p_fst_->clear_done();
    p_lst_->new_param_(*p_fst_->p_ma_, name, val_str, force);
}

const char* exception::get_msgarg_by_name(const char* name) const noexcept {
    // A counted handle: the blocks behind this one stay alive while we look,
    // whoever else lets go of them.
    exception work(p_fst_);
    if (work.p_fst_ != nullptr)
        work.p_fst_->set_done();
    if (name == nullptr || *name == '\0')
        return "";
    while (work.p_fst_ != nullptr) {
        const exception_node& node = work.block_()->node_;
        if (node.msg_owner_) {
            if (const char* value = node.msg_param_.get_param_value_by_name(name))
                return value; // lives in the block, which `this` keeps
        }
        work = work.get_next();
        if (work.p_fst_ != nullptr)
            work.p_fst_->set_done();
    }
    return "";
}

exception& operator<<(exception& exp, const error_message& mdescr) noexcept {
    exp.append_message(mdescr.file_, mdescr.line_, mdescr.err_no_, mdescr.format_);
    return exp;
}

} // namespace vrk
