// Prints the firmware variables that the kernel shows: one file each, NAME-GUID, with 4 bytes of attributes and the
// value (https://docs.kernel.org/filesystems/efivarfs.html).
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/error.h"

namespace tarnwick {

inline constexpr std::size_t maxValueBytes = 64 * 1024;       // bytes shown of one value
inline constexpr std::size_t maxDumpBytes = 4 * 1024 * 1024;  // bytes of all names and values that are shown

// One read(2): fills `buffer` and returns the count, or -1 with errno.
using ReadCall = std::function<ssize_t(int descriptor, void* buffer, std::size_t size)>;

struct VariableDump {
    std::size_t shown = 0;        // lines written
    std::vector<Error> problems;  // one for each file that was not dumped, about its name
    bool found = false;           // whether the folder exists and is not empty
};

// Writes one line for each variable, ordered by name: NAME-GUID, a tab, the value. Bytes that are not printable ASCII,
// and %, are written as %xx. A mark is in %[ ]: where a value or the list is cut, and in place of a secret. Each
// variable is read once, with one call, because each read calls the firmware; a call interrupted by EINTR is repeated
// at most 10 times.
VariableDump dumpVariables(const std::filesystem::path& folder, const std::function<void(const std::string&)>& write,
                           const ReadCall& read);

}  // namespace tarnwick
