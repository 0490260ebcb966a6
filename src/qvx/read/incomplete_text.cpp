#include "qvx/read/incomplete_text.h"

#include <algorithm>

namespace tarnwick::qvx {

std::string incompleteText(EntryType type, const EntryTail& tail) {
    // A damaged disk can give thousands of extents; one message must stay readable.
    constexpr std::size_t maxShown = 8;
    const std::vector<Extent>& extents = *tail.unreadable;
    std::string text = "incomplete when it was captured: ";
    // What is missing is not a part of the content whose place is known.
    if (extents.empty()) {
        text += type == EntryType::directory ? "its metadata"
                : type == EntryType::link    ? "its target or its metadata"
                                             : "its metadata or the end of its content";
        return text + " could not be read or stored";
    }
    for (std::size_t i = 0; i < std::min(extents.size(), maxShown); ++i)
        text += (i == 0 ? "bytes " : ", ") + std::to_string(extents[i].offset) + " to " +
                std::to_string(extents[i].end() - 1);
    if (extents.size() > maxShown) text += " and " + std::to_string(extents.size() - maxShown) + " more extents";
    return text + " could not be read";
}

}  // namespace tarnwick::qvx
