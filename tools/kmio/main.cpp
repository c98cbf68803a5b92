// kmio: a command-line tool over the KalometIO library's public interface.
#include "arg_parser.h"
#include "command.h"

#include <cstdio>
#include <cstring>
#include <exception>

namespace kmiotool {

namespace {

const std::vector<const Command*>& commands() {
    static const std::vector<const Command*> all = {&versionCommand(), &listCommand(), &interfacesCommand(),
                                                    &openCommand(),    &sendCommand(), &watchCommand()};
    return all;
}

const Command* findCommand(const std::string& name) {
    for (const Command* command : commands()) {
        if (name == command->name) {
            return command;
        }
    }
    return nullptr;
}

void printOverview(std::FILE* out) {
    std::fprintf(out,
                 "Usage: kmio COMMAND [ARGS]...\n"
                 "\n"
                 "Finds, opens and watches devices through the KalometIO library.\n"
                 "\n"
                 "Commands:\n");
    for (const Command* command : commands()) {
        std::fprintf(out, "  %-11s %s\n", command->name, command->summary);
    }
    std::fprintf(out, "  %-11s %s\n", "help", "show this text, or a command's help (kmio help COMMAND)");
    std::fprintf(out,
                 "\n"
                 "Locators: usb:sn:SERIAL, usb:id:CHIPID, network:HOST:PORT, network:sn:SERIAL,\n"
                 "serial:/dev/ttyUSB0. Exit status: 0 success, 1 failure, 2 usage error.\n");
}

int usageError(const std::string& message, const char* commandName) {
    std::fprintf(stderr, "kmio: %s\n", message.c_str());
    if (commandName != nullptr) {
        std::fprintf(stderr, "Try 'kmio %s --help'.\n", commandName);
    } else {
        std::fprintf(stderr, "Try 'kmio help'.\n");
    }
    return kExitUsage;
}

int runHelp(const std::vector<std::string>& args) {
    if (args.empty()) {
        printOverview(stdout);
        return kExitOk;
    }
    const Command* command = findCommand(args[0]);
    if (command == nullptr || args.size() > 1) {
        return usageError(command == nullptr ? "no such command '" + args[0] + "'" : "too many arguments",
                          "help");
    }
    std::fputs(command->help, stdout);
    return kExitOk;
}

// "--help" or "-h" anywhere before a "--" asks for the command's help.
bool asksForHelp(const std::vector<std::string>& args) {
    for (const auto& arg : args) {
        if (arg == "--") {
            return false;
        }
        if (arg == "--help" || arg == "-h") {
            return true;
        }
    }
    return false;
}

int run(int argc, char** argv) {
    if (argc < 2) {
        printOverview(stderr);
        return kExitUsage;
    }
    std::string name = argv[1];
    std::vector<std::string> args(argv + 2, argv + argc);
    if (name == "help" || name == "--help" || name == "-h") {
        return runHelp(args);
    }
    const Command* command = findCommand(name);
    if (command == nullptr) {
        return usageError("no such command '" + name + "'", nullptr);
    }
    if (asksForHelp(args)) {
        std::fputs(command->help, stdout);
        return kExitOk;
    }
    try {
        return command->run(args);
    } catch (const UsageError& e) {
        return usageError(std::string(command->name) + ": " + e.what(), command->name);
    }
}

}  // namespace

}  // namespace kmiotool

int main(int argc, char** argv) {
    try {
        return kmiotool::run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kmio: %s\n", e.what());
        return kmiotool::kExitFailure;
    }
}
