// Cuts the content of a file into pieces of whole lines, which can be searched in parallel.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace tarnwick::qvx {

// A line that is longer than a piece is cut, and its parts count as lines that have the same number.
class LineCutter {
public:
    static constexpr std::size_t maxPiece = 262144;  // bytes

    // Receives a piece, and the number of its first line.
    using Receiver = std::function<void(std::string piece, std::uint64_t firstLine)>;

    // Without `countsLines`, the number of each line is 1.
    LineCutter(Receiver receiver, bool countsLines) : receiver_(std::move(receiver)), countsLines_(countsLines) {}

    void add(std::string_view bytes);

    // Passes on the rest. The next bytes are those of another file.
    void finish();

private:
    void cut();
    void pass(std::string piece);

    Receiver receiver_;
    bool countsLines_;
    std::string text_;
    std::uint64_t line_ = 1;
};

}  // namespace tarnwick::qvx
