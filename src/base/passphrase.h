// Asks for or reads a passphrase.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "base/error.h"

namespace tarnwick {

// Bytes that are kept out of swap where that is allowed; the destructor wipes them.
class Passphrase {
public:
    static constexpr std::size_t capacity = 8192;

    Passphrase();
    ~Passphrase();
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;

    [[nodiscard]] const char* data() const { return bytes_.data(); }
    [[nodiscard]] std::size_t size() const { return size_; }
    void append(char byte);
    void clear();

    // Where the next bytes may be written, and how many; then `grow` adds their count to the size.
    [[nodiscard]] char* end() { return bytes_.data() + size_; }
    [[nodiscard]] std::size_t remaining() const { return capacity - size_; }
    void grow(std::size_t count) { size_ += count; }

private:
    std::array<char, capacity> bytes_{};
    std::size_t size_ = 0;
};

// Asks on the controlling terminal with echo off; input typed before the question is discarded. Fails without a
// terminal, at an end of input before a line end, and on a line longer than the capacity. A signal that ends the
// program takes effect only after the terminal has its old settings again.
Status askPassphrase(Passphrase& passphrase, const std::string& question);

// Reads the descriptor to its end. Every byte counts, a line end too. Fails on an empty input and on one that fills the
// capacity.
Status readPassphrase(Passphrase& passphrase, int descriptor);

}  // namespace tarnwick
