#pragma once

// The library's throwing helper. Every site that reports a broken
// precondition writes
//
//     KRO_THROW("invalid image size " << width << "x" << height);
//
// which streams the reason into the message and throws velmor::kro::Exception
// with the location "modules/<path>:<line> : <qualified function>(..)".

#include <sstream>
#include <string>

#include "Exception.h"

namespace velmor {
namespace kro {
namespace detail {

// "modules/enhancement/Foo.cpp" (or any absolute path that contains the
// source tree's modules/ folder) -> "modules/enhancement/Foo".
std::string moduleSourcePath(const char* file);

// "void velmor::kro::Foo<T>::bar(int) const [with T = float]"
//   -> "velmor::kro::Foo::bar"
std::string qualifiedFunctionName(const char* prettyFunction);

std::string makeLocation(const char* file, int line, const char* prettyFunction);

[[noreturn]] void throwException(const std::string& message, const char* file, int line,
                                 const char* prettyFunction);

} // namespace detail
} // namespace kro
} // namespace velmor

#define KRO_THROW(reasonStream)                                                              \
    do {                                                                                     \
        std::ostringstream kroThrowMessage_;                                                 \
        kroThrowMessage_ << reasonStream;                                                    \
        ::velmor::kro::detail::throwException(kroThrowMessage_.str(), __FILE__, __LINE__,    \
                                              __PRETTY_FUNCTION__);                          \
    } while (false)
