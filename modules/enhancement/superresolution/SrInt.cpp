#include "SrInt.h"

#include "detail/SrIntImpl.h"

namespace velmor {
namespace kro {

template class SrInt<SrIntRegistration, SrIntMinimization>;

} // namespace kro
} // namespace velmor
