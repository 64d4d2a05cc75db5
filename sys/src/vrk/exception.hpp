// vrk/exception.hpp: the one header a product includes for the exception
// class, its argument types, the error codes and VRK_THROW.
#pragma once

#include "vrk/base/impl/exception_class.hpp"
#include "vrk/error_registry.hpp"
#include "vrk/ext/message_args.hpp"
#include "vrk/throw.hpp"
