#pragma once

#include <string>
#include <vector>

namespace kmiotool {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// One subcommand: its name, a one-line summary for "kmio help", its full help
// text, and the function that runs it with the arguments after its name. A
// run function throws UsageError for a bad command line.
struct Command {
    const char* name;
    const char* summary;
    const char* help;
    int (*run)(const std::vector<std::string>& args);
};

const Command& versionCommand();
const Command& listCommand();
const Command& interfacesCommand();
const Command& openCommand();
const Command& sendCommand();
const Command& watchCommand();

}  // namespace kmiotool
