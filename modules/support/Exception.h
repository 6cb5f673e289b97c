#pragma once

#include <exception>
#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// The one exception type the library's algorithm code throws.
//
// message  : the human-readable reason ("invalid result frame size"); what()
//            returns it alone.
// location : where it was thrown, "modules/<path>:<line> : <function>(..)",
//            for example
//            "modules/enhancement/ClusterPatternRemover:75 : velmor::kro::ClusterPatternRemover::calculateDamping(..)".
//
// Parameter setters of the super-resolution engines throw a bare
// `const char*` instead; callers must catch both forms.
class KROLIB_EXPORT Exception : public std::exception {
public:
    Exception(const Exception& other);
    Exception(const std::string& message, const std::string& location);
    Exception& operator=(const Exception&) = delete;

    ~Exception() override;
    const char* what() const noexcept override;
    virtual const std::string& where() const noexcept;

private:
    std::string message;
    std::string location;
};

} // namespace kro
} // namespace velmor
