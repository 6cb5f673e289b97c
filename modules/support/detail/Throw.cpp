#include "detail/Throw.h"

#include <cstring>

namespace velmor {
namespace kro {
namespace detail {

std::string moduleSourcePath(const char* file)
{
    std::string path = file ? file : "";
    // The build passes -fmacro-prefix-map so __FILE__ already starts with
    // "modules/"; a compiler without that option gives an absolute path, in
    // which the last "/modules/" is the source tree's.
    if (path.compare(0, 8, "modules/") != 0) {
        const std::size_t pos = path.rfind("/modules/");
        if (pos != std::string::npos)
            path.erase(0, pos + 1);
    }
    const std::size_t slash = path.find_last_of('/');
    const std::size_t dot = path.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
        path.erase(dot);
    return path;
}

namespace {

// Removes every "<...>" group (template arguments) from a qualified name.
std::string stripTemplateArguments(const std::string& name)
{
    std::string out;
    int depth = 0;
    for (char c : name) {
        if (c == '<')
            ++depth;
        else if (c == '>' && depth > 0)
            --depth;
        else if (depth == 0)
            out += c;
    }
    return out;
}

} // namespace

std::string qualifiedFunctionName(const char* prettyFunction)
{
    std::string signature = prettyFunction ? prettyFunction : "";
    const std::size_t with = signature.find(" [with ");
    if (with != std::string::npos)
        signature.erase(with);

    // Find the parameter list: the '(' matching the last ')'.
    const std::size_t close = signature.find_last_of(')');
    if (close == std::string::npos)
        return stripTemplateArguments(signature);
    int depth = 0;
    std::size_t open = std::string::npos;
    for (std::size_t i = close + 1; i-- > 0;) {
        if (signature[i] == ')')
            ++depth;
        else if (signature[i] == '(' && --depth == 0) {
            open = i;
            break;
        }
    }
    if (open == std::string::npos || open == 0)
        return stripTemplateArguments(signature);

    // The name runs back from the '(' to the last blank outside template
    // brackets (the blank after the return type, if there is one).
    int angle = 0;
    std::size_t begin = 0;
    for (std::size_t i = open; i-- > 0;) {
        const char c = signature[i];
        if (c == '>')
            ++angle;
        else if (c == '<')
            --angle;
        else if (c == ' ' && angle == 0) {
            begin = i + 1;
            break;
        }
    }
    return stripTemplateArguments(signature.substr(begin, open - begin));
}

std::string makeLocation(const char* file, int line, const char* prettyFunction)
{
    std::ostringstream location;
    location << moduleSourcePath(file) << ":" << line << " : "
             << qualifiedFunctionName(prettyFunction) << "(..)";
    return location.str();
}

void throwException(const std::string& message, const char* file, int line,
                    const char* prettyFunction)
{
    throw Exception(message, makeLocation(file, line, prettyFunction));
}

} // namespace detail
} // namespace kro
} // namespace velmor
