// The firmware's variables as the kernel shows them: one file each, NAME-GUID, that holds 4 bytes of attributes and the
// value (https://docs.kernel.org/filesystems/efivarfs.html).
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace tarnwick {

inline constexpr std::size_t variableLimit = 64 * 1024;     // bytes of a value that are shown
inline constexpr std::size_t totalLimit = 4 * 1024 * 1024;  // bytes of names and values that are shown in all

// One read(2): fills `buffer` and returns the count, or -1 with errno.
using ReadCall = std::function<ssize_t(int descriptor, void* buffer, std::size_t size)>;

struct VariableDump {
    std::size_t shown = 0;              // lines written
    std::vector<std::string> problems;  // one for each variable that could not be read
    bool found = false;                 // whether there is a folder with anything in it
};

// Writes one line a variable, in order of the names: NAME-GUID, a tab, the value; bytes that are not printable ASCII,
// and %, as %xx. A mark stands in %[ ]: where a value or the list is cut, and in place of a secret. Every variable is
// read once, with one call, since each call is a call of the firmware; a call broken off by EINTR is repeated at most
// 10 times.
VariableDump dumpVariables(const std::filesystem::path& folder, const std::function<void(const std::string&)>& write,
                           const ReadCall& read);

}  // namespace tarnwick
