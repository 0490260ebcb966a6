// A writer of archives that does as it is told, also what no honest writer would do.
#pragma once

#include <openssl/sha.h>
#include <sys/mman.h>

#include <functional>
#include <string>
#include <string_view>

#include "platform/archive/archive_reader.h"

namespace tarnwick::test {

using namespace tarnwick::qvx;
using ByteVector = std::vector<std::uint8_t>;

inline Bytes bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline Digest sha256(std::string_view text) {
    Digest digest;
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return digest;
}

inline EntryTail tailOf(const std::optional<Digest>& digest, const std::optional<SparseSum>& sum = std::nullopt) {
    EntryTail tail;
    tail.digest = digest;
    tail.sum = sum;
    return tail;
}

class ArchiveBuilder {
public:
    explicit ArchiveBuilder(EVP_PKEY* recipient, std::uint32_t groupLength = 2) : groupLength_(groupLength) {
        const KeyHandle ephemeral = generatePrivateKey();
        const auto point = publicPointOf(recipient);
        PlainHeader header{groupLength, sshFingerprint(*point), *publicPointOf(ephemeral.get())};
        const auto bound = encodePlainHeader(header);
        const auto sender = hpkeSend(Aead::aes256Gcm, recipient, ephemeral.get(), Bytes(bound).first(boundHeaderSize));
        keys_ = sender->keys;
        file_.assign(bound.begin(), bound.end());
        block_.reserve(blockSize);
    }

    // What is put into index, root and trailer can be turned into a lie first.
    std::function<void(IndexEntry&)> bendIndex = [](IndexEntry&) {};
    std::function<void(ArchiveRoot&)> bendRoot = [](ArchiveRoot&) {};
    std::function<void(Trailer&)> bendTrailer = [](Trailer&) {};

    // Puts a record where it fits whole, DATA also in pieces.
    void record(RecordType type, Bytes payload) {
        do {
            if (left() < recordHeaderSize + (type == RecordType::data ? 1 : payload.size())) endBlock();
            const std::size_t length = std::min(payload.size(), left() - recordHeaderSize);
            rawRecord(type, false, payload.first(length));
            payload = payload.subspan(length);
        } while (!payload.empty());
    }
    void rawRecord(RecordType type, bool continues, Bytes payload) {
        std::array<std::uint8_t, recordHeaderSize> header{};
        encodeRecordHeader({type, continues, static_cast<std::uint32_t>(payload.size())}, header.data());
        block_.insert(block_.end(), header.begin(), header.end());
        block_.insert(block_.end(), payload.begin(), payload.end());
    }

    EntryHead head(std::string path, EntryType type = EntryType::file) const {
        EntryHead head;
        head.number = entries_;
        head.type = type;
        head.path = std::move(path);
        head.mode = type == EntryType::directory ? 0755 : 0644;
        head.modified = 1700000000123456789;
        return head;
    }
    void begin(const EntryHead& head) {
        ByteVector payload;
        encodeEntryHead(head, payload);
        if (left() < recordHeaderSize + payload.size()) endBlock();
        index_ = {plain_.size(),
                  block_.size(),
                  head.type,
                  head.path,
                  head.mode.value_or(0),
                  head.userId.value_or(0),
                  head.groupId.value_or(0),
                  0,
                  1700000000};
        record(RecordType::entry, payload);
        ++entries_;
    }
    void end(const EntryTail& tail, std::uint64_t size) {
        ByteVector payload;
        encodeEntryTail(tail, payload);
        record(RecordType::end, payload);
        index_.size = size;
        bendIndex(index_);
        part_.add(index_);
    }
    // Pads the block that was begun.
    void endBlock() {
        if (block_.empty()) return;
        if (left() >= recordHeaderSize) rawRecord(RecordType::pad, false, ByteVector(left() - recordHeaderSize));
        block_.resize(blockSize);
        plain_.push_back(std::move(block_));
        block_.clear();
    }

    void file(const std::string& path, std::string_view content) {
        begin(head(path));
        if (!content.empty()) record(RecordType::data, bytesOf(content));
        end(tailOf(sha256(content), SparseSum{content.size(), 0}), content.size());
    }
    void link(const std::string& path, std::string_view target) {
        begin(head(path, EntryType::link));
        record(RecordType::data, bytesOf(target));
        end(tailOf(sha256(target)), target.size());
    }
    void directory(const std::string& path) {
        begin(head(path, EntryType::directory));
        end({}, 0);
    }
    void reference(const std::string& path, std::uint64_t content, std::optional<std::uint64_t> link,
                   std::uint64_t size) {
        begin(head(path));
        EntryTail tail;
        tail.contentOf = content;
        tail.linkOf = link;
        end(tail, size);
    }

    void endIndexPart() {
        ByteVector payload;
        const std::uint64_t first = entries_ - part_.count();
        part_.finish(payload);
        if (left() < recordHeaderSize + payload.size()) endBlock();
        root_.parts.push_back({first, plain_.size(), block_.size()});
        record(RecordType::index, payload);
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
        record(RecordType::root, payload);
        endBlock();
        seal(plain_.back(), false, false);
        bendTrailer(trailer);
        rawRecord(RecordType::trailer, false, encodeTrailer(trailer));
        seal(block_, false, true);
        return file_;
    }

    // Where the blocks begin in the file, and where it ends.
    [[nodiscard]] const std::vector<std::size_t>& positions() const { return positions_; }

private:
    [[nodiscard]] std::size_t left() const { return blockSize - block_.size(); }

    void seal(const ByteVector& plain, bool inGroup, bool last) {
        const std::uint64_t sequence = sealedLengths_.size();
        if (positions_.empty()) positions_.push_back(file_.size());
        ByteVector out(BlockEncoder::capacity);
        const Bytes part = dictionaryPart(plain);
        if (sequence % groupLength_ == 0) dictionary_ = {sequence, {part.begin(), part.end()}};
        const bool follows = inGroup && sequence % groupLength_ != 0;
        BlockEncoder encoder(keys_);
        const std::size_t length = encoder.encode(sequence, last, plain, follows ? &dictionary_ : nullptr, out.data());
        file_.insert(file_.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(length));
        sealedLengths_.push_back(static_cast<std::uint32_t>(length - blockHeaderSize));
        positions_.push_back(file_.size());
    }

    std::uint32_t groupLength_;
    HpkeKeys keys_;
    ByteVector file_;
    ByteVector block_;
    std::vector<ByteVector> plain_;
    GroupDictionary dictionary_;
    std::vector<std::uint32_t> sealedLengths_;
    std::vector<std::size_t> positions_;
    IndexPartEncoder part_;
    IndexEntry index_;
    ArchiveRoot root_;
    std::uint64_t entries_ = 0;
};

// The bytes as an open file.
inline FileDescriptor fileOf(const ByteVector& bytes) {
    FileDescriptor file(memfd_create("archive", MFD_CLOEXEC));
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t wrote = pwrite(file.get(), bytes.data() + at, bytes.size() - at, static_cast<off_t>(at));
        if (wrote <= 0) return {};
        at += static_cast<std::size_t>(wrote);
    }
    return file;
}

inline std::unique_ptr<ArchiveReader> openArchive(const ByteVector& bytes, EVP_PKEY* key, ReadFault& fault) {
    auto file = ArchiveFile::open(fileOf(bytes), fault);
    return file ? ArchiveReader::open(std::move(file), key, fault) : nullptr;
}

// Keeps what it is given: "path=content" for each entry that came to a good end, "path!" for each that was abandoned.
class Recorder : public EntrySink {
public:
    bool begin(const EntryHead& head) override {
        path_ = head.path;
        content_.clear();
        return true;
    }
    bool data(Bytes bytes) override {
        content_.append(bytes.begin(), bytes.end());
        return true;
    }
    bool hole(std::uint64_t length) override {
        content_.append(length, '\0');
        return true;
    }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        if (tail.contentOf && !content(*this)) content_ = "?";
        seen.push_back(path_ + '=' + content_);
        return true;
    }
    void abandon() override { seen.push_back(path_ + '!'); }

    std::vector<std::string> seen;

private:
    std::string path_;
    std::string content_;
};

}  // namespace tarnwick::test
