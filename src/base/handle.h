// Owning a C handle: std::unique_ptr with a deleter that has no state, so that a handle is one pointer wide.
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

// Owns a file descriptor, -1 for none. The destructor closes without looking at the result: where the result of a
// close counts (a file that was written), take the descriptor out with release() and close it by hand.
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
