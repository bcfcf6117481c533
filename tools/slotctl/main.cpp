// SPDX-License-Identifier: Apache-2.0
// slotctl: sees and pokes the slots of this machine.
#include "Cli.h"
#include "Commands.h"
#include "Logging.h"
#include "Signals.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/Version.h>

#include <unistd.h>
#include <climits>
#include <iostream>
#include <map>

namespace {

using slotctl::Context;

typedef int (*CommandFunction)(const Context&, const std::vector<std::string>&);

const std::map<std::string, CommandFunction>& Commands() {
    static const std::map<std::string, CommandFunction> commands = {
        {"ls", slotctl::RunList},
        {"info", slotctl::RunInfo},
        {"write", slotctl::RunWrite},
        {"read", slotctl::RunRead},
        {"rm", slotctl::RunRemove},
        {"demo", slotctl::RunDemo},
        {"hz", slotctl::RunHz},
        {"bw", slotctl::RunBw},
        {"peek", slotctl::RunPeek},
        {"top", slotctl::RunTop},
        {"record", slotctl::RunRecord},
        {"replay", slotctl::RunReplay},
        // The demo's own processes; not for users.
        {"__demo-publisher", slotctl::RunDemoPublisher},
        {"__demo-subscriber", slotctl::RunDemoSubscriber},
    };
    return commands;
}

std::string Executable(const char* argv0) {
    char path[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n > 0) {
        return std::string(path, static_cast<size_t>(n));
    }
    return argv0;
}

int Run(int argc, char** argv) {
    Context context;
    context.executable = Executable(argv[0]);
    std::string command;
    std::vector<std::string> args;
    bool help = false;
    bool optionsEnded = false;
    // The tool's own options may stand anywhere before "--"; the first other word is the
    // command, the rest belongs to it.
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (optionsEnded) {
            args.push_back(arg);
        } else if (arg == "-v" || arg == "--verbose") {
            context.log.verbosity = std::max(context.log.verbosity, 1);
        } else if (arg == "-vv") {
            context.log.verbosity = 2;
        } else if (arg == "-h" || arg == "--help") {
            help = true;
        } else if (arg == "--version" && command.empty()) {
            // The tool's own version, and the library's when another one is loaded.
            std::cout << "slotctl " << SLOT_VERSION_STRING;
            if (std::string(Slot::Version()) != SLOT_VERSION_STRING) {
                std::cout << " (libSlot " << Slot::Version() << ")";
            }
            std::cout << std::endl;
            return slotctl::ExitOk;
        } else if (arg == "--log-config" || slotctl::StartsWith(arg, "--log-config=")) {
            if (arg.size() > 12) {
                context.log.configFile = arg.substr(13);
            } else if (i + 1 < argc) {
                context.log.configFile = argv[++i];
            } else {
                throw slotctl::UsageError("option '--log-config' needs a file");
            }
        } else if (command.empty() && !arg.empty() && arg[0] == '-') {
            throw slotctl::UsageError("unknown option '" + arg + "' (see slotctl --help)");
        } else if (command.empty()) {
            command = arg;
        } else {
            if (arg == "--") {
                optionsEnded = true;
            }
            args.push_back(arg);
        }
    }
    if (command == "help") {
        // `help COMMAND` is `COMMAND --help`; `help --help` is `help help`, help's own usage.
        command = !args.empty() ? args[0] : help ? "help" : "";
        help = true;
    }
    if (command.empty()) {
        std::cout << slotctl::ToolHelp();
        return help ? slotctl::ExitOk : slotctl::ExitUsage;
    }
    const auto found = Commands().find(command);
    if (found == Commands().end() && command != "help") {
        throw slotctl::UsageError("unknown command '" + command + "' (see slotctl --help)");
    }
    if (help) {
        std::cout << slotctl::CommandHelp(command);
        return slotctl::ExitOk;
    }
    if (slotctl::StartsWith(command, "__")) {
        context.log.errorsOnly = context.log.verbosity == 0;
    }
    slotctl::ConfigureLogging(context.log);
    return found->second(context, args);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread exists, so that every thread inherits the blocked stop signals.
    slotctl::StopSignals::Block();
    slotctl::RouteStandardStreams();
    try {
        return Run(argc, argv);
    } catch (const slotctl::CommandError& e) {
        // Without a message for a quiet end (standard output was a pipe that closed).
        if (*e.what() != '\0') {
            std::cerr << "slotctl: " << slotctl::Printable(e.what()) << std::endl;
        }
        return e.Status();
    } catch (const std::exception& e) {
        std::cerr << "slotctl: " << slotctl::Printable(e.what()) << std::endl;
        return slotctl::ExitFailure;
    }
}
