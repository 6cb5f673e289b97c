#pragma once

// The sub-commands of kroenhance. Each command lives in its own file and
// registers itself with KROENHANCE_COMMAND; main() dispatches by name.

#include <string>
#include <vector>

namespace kroenhance {

// Exit statuses shared by all commands.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the work could not be done (I/O, library error)
constexpr int kExitUsage = 2;    // bad command line or option value

struct Command {
    const char* name;
    const char* summary;  // one line for the overview of --help
    // Runs the command on its own arguments (argv[0] is the command name).
    int (*run)(const std::vector<std::string>& args);
};

std::vector<Command>& commandRegistry();

struct CommandRegistration {
    explicit CommandRegistration(const Command& command) { commandRegistry().push_back(command); }
};

} // namespace kroenhance

#define KROENHANCE_COMMAND(identifier, name, summary, function) \
    static ::kroenhance::CommandRegistration identifier##Registration_( \
        ::kroenhance::Command{name, summary, function})
