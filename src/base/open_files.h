// The open files of this process.
#pragma once

#include <cstddef>

namespace tarnwick {

// How many files the process may open (getrlimit(2)).
std::size_t maxOpenFiles();

// Makes space for 1024 open files in the kernel's table, or for maxOpenFiles() if that is less. The table grows when it
// is full. In a process with threads, the thread that opens the next file then waits for some milliseconds, until no
// processor can be using the old table. So call this before the first thread starts.
void reserveOpenFiles();

}  // namespace tarnwick
