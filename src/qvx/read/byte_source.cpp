#include "qvx/read/byte_source.h"

#include <sys/stat.h>

#include <cerrno>

#include "base/file_reading.h"

namespace tarnwick::qvx {

namespace {

class FileSource : public ByteSource {
public:
    FileSource(FileDescriptor descriptor, std::uint64_t size) : descriptor_(std::move(descriptor)), size_(size) {}

    [[nodiscard]] std::uint64_t size() const override { return size_; }

    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const override {
        while (!bytes.empty()) {
            const auto count = readAt(descriptor_.get(), bytes, position);
            if (!count) return count.error();
            if (*count == 0) return Error{"the archive ends here"};  // somebody has shortened the file
            bytes = bytes.subspan(*count);
            position += *count;
        }
        return {};
    }

    [[nodiscard]] bool isFile() const override { return true; }

private:
    FileDescriptor descriptor_;
    std::uint64_t size_;
};

}  // namespace

Result<std::unique_ptr<ByteSource>, ReadFault> openFileSource(FileDescriptor descriptor) {
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) return ReadFault{systemError(errno)};
    // Every position is checked against the size of the file, and a pipe or a device has none.
    if (!S_ISREG(status.st_mode)) return readFault("not a regular file");
    return std::unique_ptr<ByteSource>(
        std::make_unique<FileSource>(std::move(descriptor), static_cast<std::uint64_t>(status.st_size)));
}

}  // namespace tarnwick::qvx
