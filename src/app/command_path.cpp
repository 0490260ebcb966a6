#include "app/command_path.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace tarnwick {

namespace {

constexpr std::string_view systemFolders[] = {"/usr/sbin", "/sbin", "/usr/bin", "/bin"};

std::vector<std::string> elementsOf(std::string_view path) {
    std::vector<std::string> elements;
    std::istringstream stream{std::string(path)};
    for (std::string element; std::getline(stream, element, ':');)
        if (!element.empty()) elements.push_back(element);
    return elements;
}

}  // namespace

std::string completeCommandPath(std::string_view inherited) {
    auto elements = elementsOf(inherited);
    for (const auto folder : systemFolders)
        if (std::find(elements.begin(), elements.end(), folder) == elements.end()) elements.emplace_back(folder);
    std::string path;
    for (const auto& element : elements) path.append(path.empty() ? "" : ":").append(element);
    return path;
}

}  // namespace tarnwick
