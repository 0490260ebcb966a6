#include "qvx/read/magic_search.h"

#include <algorithm>
#include <utility>

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t windowSize = 1048576;

}  // namespace

std::uint64_t MagicSearch::find(std::uint64_t position) {
    while (position < file_.size()) {
        if (position < windowAt_ || position + magic_.size() > windowAt_ + window_.size()) {
            window_.resize(static_cast<std::size_t>(std::min(windowSize, file_.size() - position)));
            windowAt_ = position;
            file_.willReadFrom(position);
            // The disk may be damaged here. The search continues after this window, which is emptied: its bytes are not
            // those of the file.
            if (!file_.read(position, window_)) {
                position += std::exchange(window_, {}).size();
                continue;
            }
        }
        const auto begin = window_.begin() + static_cast<std::ptrdiff_t>(position - windowAt_);
        const auto found = std::search(begin, window_.end(), magic_.begin(), magic_.end());
        position += static_cast<std::uint64_t>(found - begin);
        if (found != window_.end()) return position;
        // A magic may cross the edge of the window.
        if (position < file_.size()) position -= magic_.size() - 1;
    }
    return file_.size();
}

}  // namespace tarnwick::qvx
