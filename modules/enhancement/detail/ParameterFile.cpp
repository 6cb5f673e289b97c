#include "detail/ParameterFile.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace velmor {
namespace kro {
namespace detail {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

// The token of a section header line, or false when the line is none.
bool sectionHeader(const char* line, std::string& token)
{
    std::vector<char> buffer(std::strlen(line) + 1);
    // "[%s]": the trailing "]" of the format never matters, %s takes the
    // closing bracket with the name.
    if (std::sscanf(line, "[%s]", buffer.data()) != 1)
        return false;
    token = buffer.data();
    return true;
}

} // namespace

bool readParameterSection(const char* path, const char* sectionToken, const std::vector<ParameterKey>& keys,
                          std::size_t maxLineLength)
{
    std::unique_ptr<std::FILE, FileCloser> file(path ? std::fopen(path, "r") : nullptr);
    if (!file)
        return false;
    std::vector<char> line(maxLineLength + 1);
    bool active = false;
    std::string token;
    while (std::fgets(line.data(), static_cast<int>(line.size()), file.get())) {
        if (sectionHeader(line.data(), token)) {
            active = token == sectionToken;
            continue;
        }
        if (!active)
            continue;
        for (const ParameterKey& key : keys) {
            int value = 0;
            if (std::sscanf(line.data(), key.format, &value) == 1)
                *key.value = value;
        }
    }
    return true;
}

} // namespace detail
} // namespace kro
} // namespace velmor
