#pragma once

// The plain-text parameter files of the hardware models:
//
//   [Histogram_Parameter]
//   mode=3
//   width=0x8
//
// A line that scans as "[%s]" is a section header; the section is active
// while the token after "[" (up to white space, so with its closing bracket)
// equals the model's own token ("Histogram_Parameter]"). Before any header
// nothing is active. In the active section every other line is tried against
// each key format in turn, at the start of the line ("mode=%i": %i takes
// decimal, 0x-hex and 0-octal); a match stores the value. Unknown lines and
// keys of other sections are ignored; absent keys keep their values.

#include <cstddef>
#include <vector>

namespace velmor {
namespace kro {
namespace detail {

struct ParameterKey {
    const char* format;  // "mode=%i"
    int* value;
};

// Reads `path` line by line (lines of up to maxLineLength characters; a longer
// line is read as several). Returns false, changing nothing, when the file
// cannot be opened; the caller reports that in its own words.
bool readParameterSection(const char* path, const char* sectionToken, const std::vector<ParameterKey>& keys,
                          std::size_t maxLineLength);

} // namespace detail
} // namespace kro
} // namespace velmor
