#include "Cli.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace kroenhance {

Cli::Cli(const std::vector<std::string>& args) : args_(args), used_(args.size(), false)
{
    if (!used_.empty())
        used_[0] = true;
}

bool Cli::helpRequested() const
{
    for (std::size_t i = 1; i < args_.size(); ++i)
        if (args_[i] == "--help" || args_[i] == "-h")
            return true;
    return false;
}

bool Cli::take(const std::string& name, std::string* value, bool firstOnly)
{
    bool found = false;
    for (std::size_t i = 1; i < args_.size(); ++i) {
        if (used_[i])
            continue;
        const std::string& arg = args_[i];
        if (arg == "--")
            break;
        if (value && arg.size() > name.size() && arg.compare(0, name.size(), name) == 0 &&
            arg[name.size()] == '=') {
            *value = arg.substr(name.size() + 1);
            used_[i] = true;
            found = true;
        } else if (arg == name) {
            used_[i] = true;
            if (value) {
                if (i + 1 >= args_.size())
                    throw UsageError("option " + name + " needs a value");
                *value = args_[i + 1];
                used_[i + 1] = true;
                ++i;
            }
            found = true;
        }
        if (found && firstOnly)
            break;
    }
    return found;
}

bool Cli::has(const std::string& name) const
{
    for (std::size_t i = 1; i < args_.size(); ++i)
        if (args_[i] == name || args_[i].compare(0, name.size() + 1, name + "=") == 0)
            return true;
    return false;
}

bool Cli::flag(const std::string& name) { return take(name, nullptr); }

std::string Cli::stringOption(const std::string& name, const std::string& fallback)
{
    std::string value;
    return take(name, &value) ? value : fallback;
}

std::string Cli::requiredString(const std::string& name)
{
    std::string value;
    if (!take(name, &value))
        throw UsageError("option " + name + " is required");
    return value;
}

std::vector<std::string> Cli::stringOptions(const std::string& name)
{
    std::vector<std::string> values;
    std::string value;
    while (take(name, &value, true))
        values.push_back(value);
    return values;
}

long long parseInteger(const std::string& option, const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        throw UsageError("option " + option + ": \"" + text + "\" is not an integer");
    return value;
}

double parseReal(const std::string& option, const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value))
        throw UsageError("option " + option + ": \"" + text + "\" is not a number");
    return value;
}

long long Cli::intOption(const std::string& name, long long fallback, long long low, long long high)
{
    std::string text;
    if (!take(name, &text))
        return fallback;
    const long long value = parseInteger(name, text);
    if (value < low || value > high) {
        std::ostringstream why;
        why << "option " << name << ": " << value << " is outside the accepted range " << low
            << " to " << high;
        throw UsageError(why.str());
    }
    return value;
}

double Cli::doubleOption(const std::string& name, double fallback, double low, double high)
{
    std::string text;
    if (!take(name, &text))
        return fallback;
    const double value = parseReal(name, text);
    if (value < low || value > high) {
        std::ostringstream why;
        why << "option " << name << ": " << value << " is outside the accepted range " << low
            << " to " << high;
        throw UsageError(why.str());
    }
    return value;
}

void Cli::sizeOption(const std::string& name, int& width, int& height)
{
    std::string text;
    if (!take(name, &text))
        return;
    const std::size_t x = text.find_first_of("xX");
    if (x == std::string::npos)
        throw UsageError("option " + name + ": \"" + text + "\" is not a size like 640x512");
    const long long w = parseInteger(name, text.substr(0, x));
    const long long h = parseInteger(name, text.substr(x + 1));
    if (w <= 0 || h <= 0 || w > 65536 || h > 65536)
        throw UsageError("option " + name + ": width and height must be between 1 and 65536, got " + text);
    width = static_cast<int>(w);
    height = static_cast<int>(h);
}

std::vector<std::string> Cli::positionals(std::size_t minimum)
{
    std::vector<std::string> result;
    bool afterDashes = false;
    for (std::size_t i = 1; i < args_.size(); ++i) {
        if (used_[i])
            continue;
        const std::string& arg = args_[i];
        if (!afterDashes && arg == "--") {
            afterDashes = true;
            continue;
        }
        if (!afterDashes && arg.size() > 1 && arg[0] == '-')
            throw UsageError("unknown option " + arg + " (see " + args_[0] + " --help)");
        result.push_back(arg);
    }
    if (result.size() < minimum)
        throw UsageError(minimum == 1 ? "no input given" : "too few arguments");
    return result;
}

} // namespace kroenhance
