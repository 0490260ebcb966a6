// Owns a C handle: std::unique_ptr with a stateless deleter, so it is as large as a pointer.
//
//   using PrivateKey = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
#pragma once

#include <unistd.h>

#include <memory>
#include <utility>

namespace tarnwick {

template <auto Free>
struct FreeWith {
    void operator()(auto* handle) const noexcept { Free(handle); }
};

// Owns a file descriptor, -1 for none. The destructor closes it and ignores the result. Where that result matters (a
// file that was written), call release() and close the descriptor yourself.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~FileDescriptor() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }

    [[nodiscard]] int get() const noexcept { return descriptor_; }
    [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }
    explicit operator bool() const noexcept { return descriptor_ >= 0; }

private:
    int descriptor_ = -1;
};

}  // namespace tarnwick
