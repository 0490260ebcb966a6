// The form in which most messages show a path.
#pragma once

#include <filesystem>
#include <string>

namespace tarnwick {

// The path in double quotes, each embedded double quote and backslash behind a backslash. Other bytes stay as they are.
std::string quotedPath(const std::filesystem::path& path);

}  // namespace tarnwick
