// How far a command is: a line on the terminal, objects for programs, and a line for SIGUSR1, all on standard error.
//
// The process has one progress. What reads an archive, or content for a new one, counts the bytes. The clock is checked
// then, and by what waits for bytes; there is no thread and no timer. Any thread may call these functions.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "command_options.h"

namespace tarnwick::qvx {

// Declares --quiet, --verbose and --progress. The namesakes of some commands have other uses for the letters.
struct ProgressNames {
    const char* quiet = "-q,--quiet";
    const char* quietHelp = "no progress, no summary and no hints";
    const char* verbose = "-v,--verbose";
};
void declareProgress(CommandOptions& command, const ProgressNames& names = {});
void declareQuiet(CommandOptions& command);  // only that

bool isQuiet();    // no hints and no summary
bool isVerbose();  // names of entries, and figures at the end

// From this call on, SIGUSR1, and SIGINFO where there is one, ask for a line and do not end the process, unless they
// are ignored.
void watchForProgressRequests();

// Call it at the beginning of a command that prints text on standard output. If that is a terminal, or a pipe, whose
// reader may be a pager, no line is shown.
void shareTerminal();

// Which of several archives comes next.
void beginArchive(std::size_t number, std::size_t count);

// Begins to count for this archive; what was counted is forgotten. The name is hostile bytes.
void beginProgress(const std::string& archive);

// From now on, about so many bytes come. Until then, the total is not known.
void expectBytes(const std::string& archive, std::uint64_t bytes);

void countBytes(std::uint64_t bytes);

// Prints what is due. For what waits.
void checkProgress();

// Removes the line, and prints the figures of the end where they are wanted. Without a beginning, does nothing.
void endProgress();

// While an object exists, there is no line on the terminal, so that other text can be printed. Not for the same thread
// twice.
class ProgressPause {
public:
    ProgressPause();

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace tarnwick::qvx
