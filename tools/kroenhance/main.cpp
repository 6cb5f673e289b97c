// kroenhance: the command-line front end of KroLibEnhancement.

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Cli.h"
#include "Command.h"
#include "Exception.h"
#include "KroLibVersion.h"

namespace kroenhance {

std::vector<Command>& commandRegistry()
{
    static std::vector<Command> registry;
    return registry;
}

namespace {

void printOverview(std::ostream& out)
{
    std::vector<Command> commands = commandRegistry();
    std::sort(commands.begin(), commands.end(),
              [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
    out << "Usage: kroenhance COMMAND [options] ...\n"
           "\n"
           "Enhances thermal-camera recordings with KroLibEnhancement.\n"
           "\n"
           "Commands:\n";
    for (const Command& command : commands)
        out << "  " << command.name << std::string(12 - std::min<std::size_t>(11, std::strlen(command.name)), ' ')
            << command.summary << '\n';
    if (commands.empty())
        out << "  (none in this build)\n";
    out << "\n"
           "Options:\n"
           "  -h, --help     show this help, or a command's help with COMMAND --help\n"
           "  --version      print the library version\n"
           "\n"
           "Exit status: 0 on success, 1 when the work failed, 2 for a bad command line.\n";
}

} // namespace
} // namespace kroenhance

int main(int argc, char** argv)
{
    using namespace kroenhance;
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        printOverview(std::cerr);
        return kExitUsage;
    }
    const std::string& first = args[0];
    if (first == "-h" || first == "--help" || first == "help") {
        printOverview(std::cout);
        return kExitOk;
    }
    if (first == "--version") {
        std::cout << "kroenhance " << KROLIB_VERSION_STRING << '\n';
        return kExitOk;
    }
    for (const Command& command : commandRegistry()) {
        if (first != command.name)
            continue;
        try {
            return command.run(args);
        } catch (const UsageError& e) {
            std::cerr << "kroenhance " << command.name << ": " << e.what() << '\n';
            return kExitUsage;
        } catch (const RunError& e) {
            std::cerr << "kroenhance " << command.name << ": " << e.what() << '\n';
            return kExitFailure;
        } catch (const velmor::kro::Exception& e) {
            std::cerr << "kroenhance " << command.name << ": " << e.what() << " (at " << e.where()
                      << ")\n";
            return kExitFailure;
        } catch (const char* message) {
            std::cerr << "kroenhance " << command.name << ": " << message << '\n';
            return kExitUsage;
        } catch (const std::exception& e) {
            std::cerr << "kroenhance " << command.name << ": " << e.what() << '\n';
            return kExitFailure;
        }
    }
    std::cerr << "kroenhance: unknown command \"" << first << "\"\n\n";
    printOverview(std::cerr);
    return kExitUsage;
}
