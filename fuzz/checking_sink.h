// A sink that holds a reader to its promises.
#pragma once

#include <openssl/sha.h>

#include "platform/archive/entry_reader.h"
#include "require.h"

namespace tarnwick::qvx {

class CheckingSink : public EntrySink {
public:
    bool begin(const EntryHead& head) override {
        require(!open_ && isEntryPath(head.path));
        open_ = true;
        content_.clear();
        return true;
    }
    bool data(Bytes bytes) override {
        require(open_);
        content_.append(bytes.begin(), bytes.end());
        return content_.size() <= longest;
    }
    // Zeros are only counted and hashed, and nobody waits for exabytes of them here.
    bool hole(std::uint64_t length) override {
        require(open_);
        if (length > longest - std::min(longest, content_.size())) return false;
        content_.append(static_cast<std::size_t>(length), '\0');
        return true;
    }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        require(open_ && (!tail.contentOf || content_.empty()));
        if (tail.contentOf && !content(*this)) content_.clear();
        if (tail.digest && !tail.contentOf) {
            Digest digest{};
            SHA256(reinterpret_cast<const unsigned char*>(content_.data()), content_.size(), digest.data());
            require(digest == *tail.digest);
        }
        require(!tail.sum || tail.contentOf || tail.sum->size == content_.size());
        open_ = false;
        return true;
    }
    void abandon() override {
        require(open_);
        open_ = false;
    }
    [[nodiscard]] bool open() const { return open_; }
    [[nodiscard]] const std::string& content() const { return content_; }

private:
    static constexpr std::size_t longest = 1U << 22;

    std::string content_;
    bool open_ = false;
};

}  // namespace tarnwick::qvx
