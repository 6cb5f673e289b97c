#pragma once

// A small command-line parser shared by the kroenhance commands.
//
//   Cli cli(args);                      // args[0] is the command name
//   int n = cli.intOption("--window", 5, 2, 64);
//   bool q = cli.flag("--quiet");
//   std::string out = cli.requiredString("-o");
//   std::vector<std::string> inputs = cli.positionals(1);  // rejects unknown options
//
// Options take their value as the next argument or after "=". Every problem
// throws UsageError with a message that names the option; commands let it
// reach main(), which prints it and exits with status 2.

#include <stdexcept>
#include <string>
#include <vector>

namespace kroenhance {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A failure of the work itself (missing file, bad data); exit status 1.
class RunError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Cli {
public:
    explicit Cli(const std::vector<std::string>& args);

    bool helpRequested() const;

    bool flag(const std::string& name);
    bool has(const std::string& name) const;
    std::string stringOption(const std::string& name, const std::string& fallback);
    std::string requiredString(const std::string& name);
    // Every value of an option that may be repeated, in command-line order.
    std::vector<std::string> stringOptions(const std::string& name);
    long long intOption(const std::string& name, long long fallback, long long low, long long high);
    double doubleOption(const std::string& name, double fallback, double low, double high);
    // "640x512" -> width 640, height 512 (both positive).
    void sizeOption(const std::string& name, int& width, int& height);

    // The remaining arguments, after all options have been taken; rejects
    // any unknown option and fewer than `minimum` positionals.
    std::vector<std::string> positionals(std::size_t minimum);

private:
    // Takes the first unused occurrence of `name` (and its value).
    bool take(const std::string& name, std::string* value, bool firstOnly = false);

    std::vector<std::string> args_;
    std::vector<bool> used_;
};

long long parseInteger(const std::string& option, const std::string& text);
double parseReal(const std::string& option, const std::string& text);

} // namespace kroenhance
