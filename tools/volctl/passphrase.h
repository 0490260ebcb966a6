// The passphrase of an encrypted volume, from asking to wiping.
#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace tarnwick {

// Bytes that are kept out of swap where that is allowed, and wiped when they go.
class Passphrase {
public:
    static constexpr std::size_t capacity = 8192;

    Passphrase();
    ~Passphrase();
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;

    [[nodiscard]] const char* data() const { return bytes_.data(); }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] bool isFull() const { return size_ == capacity; }
    void append(char byte);
    void clear();

    // Where the next bytes may be read to, and how many of them; `grow` then counts them in.
    [[nodiscard]] char* end() { return bytes_.data() + size_; }
    [[nodiscard]] std::size_t room() const { return capacity - size_; }
    void grow(std::size_t count) { size_ += count; }

private:
    std::array<char, capacity> bytes_{};
    std::size_t size_ = 0;
};

// Asks on the controlling terminal, echo off, input typed ahead thrown away. Returns the problem, empty when all is
// well: no terminal, end of input before a line end, a line longer than the capacity. A signal that ends the program
// finds the terminal as it was.
std::string askPassphrase(Passphrase& passphrase, const std::string& question);

// Reads the descriptor to its end; every byte counts, a line end too. Returns the problem.
std::string readPassphrase(Passphrase& passphrase, int descriptor);

}  // namespace tarnwick
