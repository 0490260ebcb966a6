// What is said about work that is going on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tarnwick::qvx {

struct ProgressFigures {
    std::string archive;                 // hostile bytes
    std::size_t number = 0;              // of the archive, from 1
    std::size_t archives = 1;            // how many there are
    std::uint64_t done = 0;              // bytes
    std::optional<std::uint64_t> total;  // bytes, not less than `done`
    double elapsed = 0;                  // seconds

    [[nodiscard]] double rate() const;                               // bytes a second
    [[nodiscard]] std::optional<std::uint64_t> percent() const;      // rounded, as the next one
    [[nodiscard]] std::optional<std::uint64_t> secondsLeft() const;  // none also if it cannot be predicted

    // For people: without the archive if there is only one, and with the end of its name if there are fewer columns.
    [[nodiscard]] std::string line(std::size_t columns = SIZE_MAX) const;

    [[nodiscard]] std::string summary() const;  // of the work that is done
    [[nodiscard]] std::string json() const;
};

}  // namespace tarnwick::qvx
