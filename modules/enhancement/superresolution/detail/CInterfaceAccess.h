#pragma once

#include "SrFloat.h"

namespace velmor {
namespace kro {
namespace detail {

// The engine behind a live C-interface context, or null for an invalid
// handle. For tests and diagnostics inside the library only.
const SrFloat<SrFloatRegistration2>* cInterfaceEngine(int handle);

} // namespace detail
} // namespace kro
} // namespace velmor
