// A writer of small archives that does as it is told, also what no honest writer would do.
#pragma once

#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <sys/mman.h>

#include <functional>
#include <string>
#include <string_view>

#include "fuzz/checking_sink.h"
#include "platform/archive/archive_reader.h"
#include "platform/archive/ssh_key.h"

namespace tarnwick::test {

using namespace tarnwick::qvx;
using ByteVector = std::vector<std::uint8_t>;
using Seen = std::vector<std::string>;

inline Bytes bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline Digest sha256(std::string_view text) {
    Digest digest;
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return digest;
}

inline EntryTail tailOf(const Digest& digest, const std::optional<SparseSum>& sum = std::nullopt) {
    EntryTail tail;
    tail.digest = digest;
    tail.sum = sum;
    return tail;
}

// The key that all archives are sealed to.
inline EVP_PKEY* recipient() {
    static const KeyHandle key = generatePrivateKey();
    return key.get();
}

class ArchiveBuilder {
public:
    explicit ArchiveBuilder(std::uint32_t groupLength = 2) : groupLength_(groupLength) {
        const KeyHandle ephemeral = generatePrivateKey();
        const PlainHeader header{groupLength, sshFingerprint(*publicPointOf(recipient())),
                                 *publicPointOf(ephemeral.get())};
        const auto bound = encodePlainHeader(header);
        keys_ = hpkeSend(Aead::aes256Gcm, recipient(), ephemeral.get(), Bytes(bound).first(boundHeaderSize))->keys;
        file_.assign(bound.begin(), bound.end());
    }

    // What is put into index, root and trailer can be turned into a lie first.
    std::function<void(IndexEntry&)> bendIndex = [](IndexEntry&) {};
    std::function<void(ArchiveRoot&)> bendRoot = [](ArchiveRoot&) {};
    std::function<void(Trailer&)> bendTrailer = [](Trailer&) {};

    ArchiveBuilder& record(RecordType type, Bytes payload, bool continues = false) {
        std::array<std::uint8_t, recordHeaderSize> header{};
        encodeRecordHeader({type, continues, static_cast<std::uint32_t>(payload.size())}, header.data());
        block_.insert(block_.end(), header.begin(), header.end());
        block_.insert(block_.end(), payload.begin(), payload.end());
        return *this;
    }
    ArchiveBuilder& data(std::string_view content) { return record(RecordType::data, bytesOf(content)); }

    EntryHead head(std::string path, EntryType type = EntryType::file) const {
        EntryHead head;
        head.number = entries_;
        head.type = type;
        head.path = std::move(path);
        head.mode = type == EntryType::directory ? 0755 : 0644;
        head.modified = 1700000000123456789;
        return head;
    }
    ArchiveBuilder& begin(const EntryHead& head) {
        ByteVector payload;
        encodeEntryHead(head, payload);
        index_ = {plain_.size(), block_.size(), head.type, head.path, *head.mode, 0, 0, 0, 1700000000};
        ++entries_;
        return record(RecordType::entry, payload);
    }
    ArchiveBuilder& end(const EntryTail& tail, std::uint64_t size) {
        ByteVector payload;
        encodeEntryTail(tail, payload);
        index_.size = size;
        bendIndex(index_);
        part_.add(index_);
        return record(RecordType::end, payload);
    }
    // Pads the block that was begun. All that is put into one block must fit.
    ArchiveBuilder& endBlock() {
        if (block_.empty()) return *this;
        record(RecordType::pad, ByteVector(blockSize - block_.size() - recordHeaderSize));
        plain_.push_back(std::exchange(block_, {}));
        return *this;
    }

    ArchiveBuilder& entry(const EntryHead& head, std::string_view content, const EntryTail& tail) {
        begin(head);
        if (!content.empty()) data(content);
        return end(tail, content.size());
    }
    ArchiveBuilder& file(const std::string& path, std::string_view content) {
        return entry(head(path), content, tailOf(sha256(content), SparseSum{content.size(), 0}));
    }
    ArchiveBuilder& link(const std::string& path, std::string_view target) {
        return entry(head(path, EntryType::link), target, tailOf(sha256(target)));
    }
    ArchiveBuilder& directory(const std::string& path) { return entry(head(path, EntryType::directory), "", {}); }
    ArchiveBuilder& reference(const std::string& path, std::uint64_t content, std::optional<std::uint64_t> link,
                              std::uint64_t size) {
        EntryTail tail;
        tail.contentOf = content;
        tail.linkOf = link;
        return begin(head(path)).end(tail, size);
    }

    ArchiveBuilder& endIndexPart() {
        ByteVector payload;
        const std::uint64_t first = entries_ - part_.count();
        part_.finish(payload);
        root_.parts.push_back({first, plain_.size(), block_.size()});
        return record(RecordType::index, payload);
    }

    // Completes the archive and gives the bytes of the file.
    ByteVector finish() {
        if (part_.count() > 0) endIndexPart();
        endBlock();
        const std::uint64_t rootSequence = plain_.size();
        for (const auto& plain : plain_) seal(plain, true, false);
        root_.entries = entries_;
        root_.sealedLengths = sealedLengths_;
        Trailer trailer{file_.size(), rootSequence, entries_, rootSequence + 2};
        bendRoot(root_);
        ByteVector payload;
        encodeRoot(root_, payload);
        record(RecordType::root, payload).endBlock();
        seal(plain_.back(), false, false);
        bendTrailer(trailer);
        record(RecordType::trailer, encodeTrailer(trailer));
        seal(block_, false, true);
        return file_;
    }

    // Where the blocks begin in the file, and where it ends.
    std::vector<std::size_t> positions{plainHeaderSize};

private:
    void seal(const ByteVector& plain, bool inGroup, bool last) {
        const std::uint64_t sequence = sealedLengths_.size();
        if (sequence % groupLength_ == 0) dictionary_ = {sequence, plain};
        const bool follows = inGroup && sequence % groupLength_ != 0;
        file_.resize(positions.back() + BlockEncoder::capacity);
        const std::size_t length = BlockEncoder(keys_).encode(sequence, last, plain, follows ? &dictionary_ : nullptr,
                                                              file_.data() + positions.back());
        positions.push_back(positions.back() + length);
        file_.resize(positions.back());
        sealedLengths_.push_back(static_cast<std::uint32_t>(length - blockHeaderSize));
    }

    std::uint32_t groupLength_;
    HpkeKeys keys_;
    ByteVector file_;
    ByteVector block_;
    std::vector<ByteVector> plain_;
    GroupDictionary dictionary_;
    std::vector<std::uint32_t> sealedLengths_;
    IndexPartEncoder part_;
    IndexEntry index_;
    ArchiveRoot root_;
    std::uint64_t entries_ = 0;
};

inline std::unique_ptr<ArchiveReader> openArchive(const ByteVector& bytes, ReadFault& fault,
                                                  EVP_PKEY* key = recipient()) {
    FileDescriptor memory(memfd_create("archive", MFD_CLOEXEC));
    EXPECT_EQ(pwrite(memory.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    auto file = ArchiveFile::open(std::move(memory), fault);
    return file ? ArchiveReader::open(std::move(file), key, fault) : nullptr;
}

// Keeps what it is given: "path=content" for each entry that came to a good end, "path!" for each that was abandoned.
class Recorder : public CheckingSink {
public:
    bool begin(const EntryHead& head) override {
        path_ = head.path;
        return CheckingSink::begin(head);
    }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        const bool goOn = CheckingSink::finish(tail, content);
        seen.push_back(path_ + '=' + this->content());
        return goOn;
    }
    void abandon() override {
        seen.push_back(path_ + '!');
        CheckingSink::abandon();
    }

    Seen seen;

private:
    std::string path_;
};

}  // namespace tarnwick::test
