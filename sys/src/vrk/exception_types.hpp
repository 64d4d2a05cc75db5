// vrk/exception_types.hpp: the registry of exception classes that can be
// rebuilt from bytes, keyed by the 16-bit type number of their type word.
//
// Lookups take no lock and never allocate: the table is a static array of
// atomic creator pointers. Registering never throws.
#pragma once

#include "vrk/exception.hpp"

namespace vrk {

// Makes an empty exception object of one class from `alloc`, after reading
// that class's part of the type header from `inp`. May return an empty
// pointer.
using exception_creator = auto_ptr<exception, default_deleter> (*)(istream& inp, allocator& alloc);

// The creator registered for `type`, or null.
exception_creator exception_by_type(unsigned short type) noexcept;

// Registers `creator` for `type`. False (and nothing changed) when another
// creator already holds the number; registering the same one again is true.
// A library that may be unloaded (dlclose) unregisters its creators first.
bool register_exception_type(unsigned short type, exception_creator creator) noexcept;

// Removes `creator` from `type` if it holds it; true when it did.
bool unregister_exception_type(unsigned short type, exception_creator creator) noexcept;

} // namespace vrk
