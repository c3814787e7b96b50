#ifndef AKUDOA_TOOLS_COMMANDS_H
#define AKUDOA_TOOLS_COMMANDS_H

// The subcommands of the akudoa program. Each takes its arguments (without
// the program and subcommand names), returns the exit status, and throws
// ToolError or UsageError for main() to report. New subcommands (picked-up
// audio, distance) join the table in main.cpp.

#include <string>
#include <vector>

namespace akutool {

int runSimulate(const std::vector<std::string>& args);
int runImage(const std::vector<std::string>& args);
int runPickup(const std::vector<std::string>& args);
int runGeometry(const std::vector<std::string>& args);
int runServe(const std::vector<std::string>& args);
int runCheck(const std::vector<std::string>& args);

extern const char* const kSimulateHelp;
extern const char* const kImageHelp;
extern const char* const kPickupHelp;
extern const char* const kGeometryHelp;
extern const char* const kServeHelp;
extern const char* const kCheckHelp;

} // namespace akutool

#endif
