#include "ordered_lines.h"

#include <algorithm>
#include <cstdio>

namespace tarnwick::qvx {

namespace {

bool print(const void* text, std::size_t length) { return std::fwrite(text, 1, length, stdout) == length; }

}  // namespace

bool OrderedLines::add(std::uint32_t number, const std::string& line) {
    if (number > next_) return store(number, line);
    // A number that has passed is in the archive twice. The reader reports that at the end of the archive.
    if (!print(line.data(), line.size())) return false;
    if (number == next_) ++next_;
    while (!heap_.empty() && heap_.front().number <= next_)
        if (!printFirst()) return false;
    return true;
}

bool OrderedLines::finish() {
    while (!heap_.empty())
        if (!printFirst()) return false;
    return true;
}

bool OrderedLines::store(std::uint32_t number, const std::string& line) {
    const auto position = spool_.append({reinterpret_cast<const std::uint8_t*>(line.data()), line.size()});
    if (!position) {
        status_ = position.error();
        return false;
    }
    heap_.push_back({number, static_cast<std::uint32_t>(*position), static_cast<std::uint32_t>(*position >> 32)});
    std::ranges::push_heap(heap_, std::greater());
    return true;
}

bool OrderedLines::printFirst() {
    std::ranges::pop_heap(heap_, std::greater());
    const Waiting first = heap_.back();
    heap_.pop_back();
    next_ = std::max(next_, first.number + std::uint64_t{1});
    status_ = spool_.read(first.positionLow | std::uint64_t{first.positionHigh} << 32, text_);
    return status_ && print(text_.data(), text_.size());
}

}  // namespace tarnwick::qvx
