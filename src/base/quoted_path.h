// Paths in the form that most messages show.
#pragma once

#include <filesystem>
#include <string>

namespace tarnwick {

// The path in double quotes, with a backslash before each double quote and backslash in it. Other bytes are unchanged.
std::string quotedPath(const std::filesystem::path& path);

}  // namespace tarnwick
