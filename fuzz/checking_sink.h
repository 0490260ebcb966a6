// A sink that checks what a reader promises, and keeps what it receives.
#pragma once

#include <openssl/sha.h>
#include <sys/mman.h>
#include <unistd.h>

#include <utility>

#include "qvx/read/archive_file.h"
#include "qvx/read/entry_reader.h"
#include "require.h"

namespace tarnwick::qvx {

using ByteVector = std::vector<std::uint8_t>;

inline Digest sha256(std::string_view text) {
    Digest digest;
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return digest;
}

// An archive that is in no folder.
inline FileDescriptor memoryFile(const ByteVector& bytes) {
    FileDescriptor memory(memfd_create("archive", MFD_CLOEXEC));
    require(pwrite(memory.get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    return memory;
}

inline std::unique_ptr<ArchiveFile> archiveFile(const ByteVector& bytes) {
    return std::make_unique<ArchiveFile>(std::move(*openFileSource(memoryFile(bytes))));
}

class CheckingSink : public EntrySink {
public:
    bool begin(const EntryHead& head) override {
        require(!open_ && isEntryPath(head.path));
        open_ = true;
        path_ = head.path;
        content_.clear();
        return true;
    }
    bool data(Bytes bytes) override {
        require(open_);
        content_.append(bytes.begin(), bytes.end());
        return kept_ + content_.size() <= maxKept;
    }
    // A hole may have exabytes of zeros.
    bool hole(std::uint64_t length) override { return length <= maxKept && data(ByteVector(length)); }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        require(open_ && (!tail.contentOf || content_.empty()));
        require(!tail.unreadable || tail.unreadable->empty() || tail.unreadable->back().end() <= content_.size());
        if (tail.contentOf && !content(*this)) content_.clear();
        require(!tail.digest || sha256(content_) == *tail.digest);
        require(!tail.totals || tail.totals->size == content_.size());
        open_ = false;
        kept_ += content_.size();
        seen.push_back(path_ + '=' + content_);
        return true;
    }
    void abandon() override {
        require(std::exchange(open_, false));
        seen.push_back(path_ + '!');
    }
    [[nodiscard]] bool open() const { return open_; }

    // "path=content" for each entry that was finished, "path!" for each that was abandoned.
    std::vector<std::string> seen;

private:
    static constexpr std::size_t maxKept = 1U << 23;

    std::string path_;
    std::string content_;
    std::size_t kept_ = 0;
    bool open_ = false;
};

}  // namespace tarnwick::qvx
