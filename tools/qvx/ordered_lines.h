// Prints lines in the order of their numbers, whatever the order in which they come.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "qvx/read/spool.h"

namespace tarnwick::qvx {

// A line that comes too early waits in a temporary file. Memory: 12 bytes for each of them.
class OrderedLines {
public:
    // Prints the line if it is its turn, and those that waited for it. False when that fails: writing to standard
    // output, or the temporary file.
    bool add(std::uint32_t number, const std::string& line);

    // Prints what still waits: the archive is damaged, so the lines in between never came.
    bool finish();

    // Whether the temporary file has failed, and why.
    [[nodiscard]] const Status& status() const { return status_; }

private:
    // In 32-bit words: the alignment of a larger one would cost 4 bytes.
    struct Waiting {
        std::uint32_t number;
        std::uint32_t positionLow;
        std::uint32_t positionHigh;

        bool operator>(const Waiting& other) const { return number > other.number; }
    };

    bool store(std::uint32_t number, const std::string& line);
    bool printFirst();

    Spool spool_;
    std::deque<Waiting> heap_;  // the lowest number first
    std::vector<std::uint8_t> text_;
    std::uint64_t next_ = 0;
    Status status_;
};

}  // namespace tarnwick::qvx
