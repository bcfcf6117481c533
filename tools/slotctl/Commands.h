// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Logging.h"

#include <string>
#include <vector>

namespace slotctl {

// What every command gets besides its own arguments.
struct Context {
    LogOptions log;
    std::string executable;  // this program, for the demo's child processes
};

// Each returns the exit status; errors are thrown as CommandError.
int RunList(const Context& context, const std::vector<std::string>& args);
int RunInfo(const Context& context, const std::vector<std::string>& args);
int RunWrite(const Context& context, const std::vector<std::string>& args);
int RunRead(const Context& context, const std::vector<std::string>& args);
int RunRemove(const Context& context, const std::vector<std::string>& args);
int RunDemo(const Context& context, const std::vector<std::string>& args);
int RunHz(const Context& context, const std::vector<std::string>& args);
int RunBw(const Context& context, const std::vector<std::string>& args);
int RunPeek(const Context& context, const std::vector<std::string>& args);
int RunTop(const Context& context, const std::vector<std::string>& args);
int RunRecord(const Context& context, const std::vector<std::string>& args);
int RunReplay(const Context& context, const std::vector<std::string>& args);

// The demo's child processes, started by RunDemo under hidden command names.
int RunDemoPublisher(const Context& context, const std::vector<std::string>& args);
int RunDemoSubscriber(const Context& context, const std::vector<std::string>& args);

// Help texts: the tool's overview, and each command's (nullptr for an unknown command).
const char* ToolHelp();
const char* CommandHelp(const std::string& command);

}  // namespace slotctl
