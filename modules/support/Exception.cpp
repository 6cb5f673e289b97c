#include "Exception.h"

namespace velmor {
namespace kro {

Exception::Exception(const Exception& other)
    : std::exception(other), message(other.message), location(other.location) {}

Exception::Exception(const std::string& message_, const std::string& location_)
    : message(message_), location(location_) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept { return message.c_str(); }

const std::string& Exception::where() const noexcept { return location; }

} // namespace kro
} // namespace velmor
