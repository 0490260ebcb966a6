// The execution log: what a run did, line by line, in a file in /tmp and on the console (standard output).
//
//   level    log file (only while open)   console
//   INFO     "INFO: " + text              text alone
//   WARNING  "WARNING: " + text           "WARNING: " + text
//   TRACE    "TRACE: " + text             "TRACE: " + text, only when verbose
//
// A line is one prefix, the text and one line end, also when the text itself holds line ends. It is written to the file
// first and flushed on both sides at once, so that the log is complete up to its last line when the process dies or a
// command blocks. Write errors on the file lose lines silently. The console is std::cout, synchronized with stdio.
// Used from the main thread only.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tarnwick {

void logInfo(std::string_view text);
void logWarning(std::string_view text);
void logTrace(std::string_view text);

// Whether TRACE lines reach the console; off at first.
void setVerboseConsole(bool verbose);

// The local time as "2026-11-15-12:13:38", the same in every locale. It is part of the names of the log file, the
// capture folder and the archive, colons included. Pauses one second before it returns, so that no two stamps of one
// process are equal and no run starts its work in the second of its stamp.
std::string makeTimeStamp();

// Creates "/tmp/tarnwick-<stamp>.log", a file that did not exist before, and returns its path. What has that name
// already, be it the log of another run, a link or a folder, is renamed: its name gets a dot and 16 random hexadecimal
// digits appended. When the file cannot be created, prints a warning on the console and returns the empty text; the run
// goes on without a log file.
std::string openExecutionLog(const std::string& stamp);

// Closes the log file for good and copies it to `folder` under its own name; later lines reach the console only. The
// copy holds what this run logged, even if another file has the log's name by now. Returns the copy's path; the empty
// text when the log was not open (silently) or when the copy failed (after a warning), for example because a file of
// that name exists in `folder`.
std::string copyExecutionLog(const std::filesystem::path& folder);

}  // namespace tarnwick
