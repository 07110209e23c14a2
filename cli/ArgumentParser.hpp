#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CommandLineOptions.hpp"

namespace velto::cli {

// Exit status of a command line the program cannot act on.
inline constexpr int kUsageExitStatus = 2;

struct ParseOutcome {
    // Absent when the program should print the texts below and exit with exitCode
    // (help: 0; bad arguments: kUsageExitStatus).
    std::optional<Invocation> invocation;
    int exitCode = 0;
    std::string standardOutput;
    std::string standardError;
};

// Parses the whole command line (argv[0] included). Never throws for anything a user types.
ParseOutcome parseCommandLine(int argc, const char* const* argv);
// The same for a list of words, first the program name (for tests).
ParseOutcome parseCommandLine(const std::vector<std::string>& words);

}  // namespace velto::cli
