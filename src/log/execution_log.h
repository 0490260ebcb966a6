// The execution log: what a run did, line by line, in a file in /tmp and on the console (standard output).
//
//   level    log file (only while open)   console
//   INFO     "INFO: " + text              text alone
//   WARNING  "WARNING: " + text           "WARNING: " + text
//   TRACE    "TRACE: " + text             "TRACE: " + text, only when verbose
//
// A line is one prefix, the text and one line end, also when the text itself has line ends. It is written to the file
// first and flushed on both sides at once, so that the log is complete up to its last line when the process dies or a
// command blocks. After a write error, lines are missing from the file without a message. The console is std::cout,
// synchronized with stdio. Used from the main thread only.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tarnwick {

void logInfo(std::string_view text);
void logWarning(std::string_view text);
void logTrace(std::string_view text);

// Whether TRACE lines are printed on the console; false at first.
void setVerboseConsole(bool verbose);

// The local time as "2026-11-15-12:13:38", the same in every locale. It is part of the names of the log file, the
// capture folder and the archive, colons included. Waits one second before it returns, so that a process never gets the
// same stamp twice and no run starts its work in the second of its stamp.
std::string makeTimeStamp();

// Creates the new file "/tmp/tarnwick-<stamp>.log" and returns its path. If the name exists (the log of another run, a
// link, a folder), that file is renamed: a dot and 16 random hexadecimal digits are appended to its name. When the log
// cannot be created, prints a warning on the console and returns an empty text; the run continues without a log file.
std::string openExecutionLog(const std::string& stamp);

// Closes the log file and copies it to `folder` under its own name; later lines are printed on the console only. The
// copy contains what this run logged, even if another file has the name of the log by now. Returns the path of the
// copy. Empty when the log was not open (silently) or when the copy failed (after a warning), for example because
// `folder` has a file of that name.
std::string copyExecutionLog(const std::filesystem::path& folder);

}  // namespace tarnwick
