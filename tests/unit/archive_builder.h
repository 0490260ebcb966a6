// Writes small archives with any records in any order, also archives that contradict themselves.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "fuzz/checking_sink.h"
#include "qvx/archive_reader.h"
#include "qvx/archive_writer.h"
#include "qvx/crypto/ssh_key.h"
#include "qvx/write/block_stream.h"

namespace tarnwick::test {

using namespace tarnwick::qvx;
using Seen = std::vector<std::string>;

// The key that all archives are sealed to.
inline EVP_PKEY* recipient() {
    static const KeyHandle key = generatePrivateKey();
    return key.get();
}

inline std::vector<Point> recipients() { return {*publicPointOf(recipient())}; }

inline auto openArchive(const ByteVector& bytes) { return ArchiveReader::open(archiveFile(bytes), recipient()); }

inline ByteVector joined(ByteVector first, const ByteVector& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// What the archive writer makes of the listed files. Empty if it fails.
inline ByteVector writeArchive(const PathList& list, FieldMask fields = allFields, EVP_PKEY* to = recipient(),
                               const ArchiveSecrets* secrets = nullptr) {
    ByteVector written;
    const auto sink = [&](Bytes bytes) {
        written.insert(written.end(), bytes.begin(), bytes.end());
        return Status();
    };
    auto writer = ArchiveWriter::open(std::vector{*publicPointOf(to)}, 4, sink, secrets);
    return writer->write(list, fields, 4) ? written : ByteVector();
}

inline PathList guardedList(const Seen& paths) {
    PathList list;
    for (const auto& path : paths) list.append(*lookUpGuarded("/", path));
    return list;
}

// Reads an archive in every way. The message of a fault is "SUBJECT: TEXT". An archive that cannot be opened has no
// entries.
class Reading {
public:
    using Opening = ArchiveReader::Opening;

    explicit Reading(const ByteVector& bytes, Opening opening = Opening::intact) {
        auto file = archiveFile(bytes);
        file_ = file.get();
        auto opened = ArchiveReader::open(std::move(file), recipient(), opening);
        if (opened) reader_ = std::move(*opened);
        if (!opened) report(opened.error());
    }

    Seen all() { return reader_ ? outcome(reader_->readAll(sink_)) : Seen(); }
    Seen salvaged() {
        return reader_ ? outcome(reader_->salvage(sink_, [&](const ReadFault& fault) { report(fault); })) : Seen();
    }
    Seen chosenBy(const EntryChoice& choice) { return reader_ ? outcome(reader_->readChosen(choice, sink_)) : Seen(); }
    // All, if no path is listed.
    Seen chosen(const Seen& paths = {}) {
        return chosenBy([&](auto, auto path) { return paths.empty() || std::ranges::count(paths, path) > 0; });
    }
    Seen listed() {
        Seen paths;
        const auto visit = [&](auto, const IndexEntry& entry) { return paths.push_back(entry.path), true; };
        if (const auto list = reader_->list(visit); !list) report(list.error());
        return paths;
    }

    // How often each byte of the archive was read, roughly: each block costs its length.
    [[nodiscard]] double readings() const { return double(file_->bytesRead()) / double(file_->size()); }

    std::string faults;

private:
    Seen outcome(const ReadOutcome& outcome) {
        if (outcome.fault()) report(*outcome.fault());
        return std::exchange(sink_.seen, {});
    }
    void report(const ReadFault& fault) {
        faults += (fault.subject.empty() ? "" : fault.subject + ": ") + fault.text + "; ";
    }

    CheckingSink sink_;
    const ArchiveFile* file_ = nullptr;
    std::unique_ptr<ArchiveReader> reader_;
};

inline void expectEntries(const ByteVector& archive, const Seen& expected) {
    Reading reading(archive);
    EXPECT_EQ(reading.all(), expected);
    EXPECT_EQ(reading.chosen(), expected);
    EXPECT_EQ(reading.salvaged(), expected);
    EXPECT_EQ(reading.faults, "");
}

// Reads without keeping contents, which may have many zeros. Sees "SIZE/HOLES", then "#" for a digest, "+N" for N
// attributes, and "!" for an incomplete entry. An entry that is abandoned is "!" alone.
struct FieldsSink : EntrySink {
    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes) override { return true; }
    bool hole(std::uint64_t) override { return true; }
    bool finish(const EntryTail& tail, const ContentReader&) override {
        seen.push_back(std::to_string(tail.totals->size) + '/' + std::to_string(tail.totals->holes));
        seen.back() += tail.digest ? "#" : "";
        if (tail.attributes) seen.back() += '+' + std::to_string(tail.attributes->size());
        seen.back() += tail.unreadable ? "!" : "";
        return true;
    }
    void abandon() override { seen.emplace_back("!"); }
    Seen seen;
};

// Records are not split, and PAD fills a block when the next one does not fit.
class ArchiveBuilder {
public:
    explicit ArchiveBuilder(LeaderChoice leaders = leaderEvery(2), const std::vector<Point>& to = recipients())
        : fileHeader(*sealHeader(secrets, to)) {
        const auto append = [this](Bytes block) {
            blocks.insert(blocks.end(), block.begin(), block.end());
            positions.push_back(fileHeader.size() + blocks.size());
            return Status();
        };
        stream_.emplace(deriveArchiveKeys(secrets.contentKey, secrets.salt)->block, 1, append, std::move(leaders));
    }

    const ArchiveSecrets secrets = std::move(*randomSecrets());
    const ByteVector fileHeader;

    bool rootUsesLeaders = false;

    // Changes a payload before it is sealed.
    std::function<void(RecordType, ByteVector&)> forge = [](RecordType, ByteVector&) {};

    // Changes what the index says of an entry.
    std::function<void(std::uint64_t number, IndexEntry&)> forgeIndex = [](std::uint64_t, IndexEntry&) {};

    ArchiveBuilder& record(RecordType type, ByteVector payload) {
        forge(type, payload);
        std::array<std::uint8_t, recordHeaderSize> header{};
        reserve(payload.size());
        encodeRecordHeader({type, false, static_cast<std::uint32_t>(payload.size())}, header.data());
        stream_->put(header);
        stream_->put(payload);
        return *this;
    }
    ArchiveBuilder& data(std::string_view content) {
        return record(RecordType::data, {content.begin(), content.end()});
    }
    // The next entry that begins announces a digest.
    ArchiveBuilder& announce() {
        announced_ = true;
        return *this;
    }
    // The next entry gets this number, and those after it the following ones.
    ArchiveBuilder& number(std::uint64_t number) {
        next_ = number;
        return *this;
    }
    ArchiveBuilder& begin(const std::string& path, EntryType type = EntryType::file) {
        EntryHead head;
        head.number = next_++;
        ++entries_;
        head.type = type;
        head.digestAnnounced = std::exchange(announced_, false);
        head.path = path;
        ByteVector payload;
        encodeEntryHead(head, payload);
        reserve(payload.size());
        index_ = {stream_->block(), stream_->offset(), 0, type, path};
        return record(RecordType::entry, payload);
    }
    ArchiveBuilder& end(const EntryTail& tail, std::uint64_t size) {
        ByteVector payload;
        encodeEntryTail(tail, payload);
        reserve(payload.size());
        index_.size = size;
        index_.incomplete = tail.unreadable.has_value();
        index_.span = stream_->block() - index_.block;
        forgeIndex(next_ - 1, index_);
        pending_.emplace_back(next_ - 1, index_);
        return record(RecordType::end, payload);
    }
    ArchiveBuilder& endBlock() {
        stream_->pad();
        return *this;
    }

    ArchiveBuilder& file(const std::string& path, std::string_view content, EntryType type = EntryType::file) {
        return announce().begin(path, type).data(content).end({.digest = sha256(content)}, content.size());
    }
    ArchiveBuilder& reference(const std::string& path, std::uint64_t content, std::uint64_t size) {
        return begin(path).end({.contentOf = content}, size);
    }

    // Covers all entries that no part has covered, or the `count` first of them by number.
    ArchiveBuilder& endIndexPart(std::size_t count = SIZE_MAX) {
        std::ranges::stable_sort(pending_, {}, &std::pair<std::uint64_t, IndexEntry>::first);
        const auto end = pending_.begin() + std::ptrdiff_t(std::min(count, pending_.size()));
        std::for_each(pending_.begin(), end, [&](const auto& entry) { part_.add(entry.second); });
        const auto first = static_cast<std::uint32_t>(std::exchange(covered_, covered_ + part_.count()));
        ByteVector payload;
        part_.finish(payload);
        pending_.erase(pending_.begin(), end);
        reserve(payload.size());
        root_.parts.push_back({first, std::uint32_t(stream_->block()), std::uint32_t(stream_->offset())});
        return record(RecordType::index, payload);
    }

    ArchiveBuilder& root() {
        if (!pending_.empty()) endIndexPart();
        static_cast<void>(endBlock().stream_->drain());
        if (!rootUsesLeaders) stream_->stopUsingLeaders();
        trailer_ = {blocks.size(), stream_->block(), entries_, stream_->block() + 2};
        root_.entries = entries_;
        root_.sealedLengths = stream_->sealedLengths();
        ByteVector payload;
        encodeRoot(root_, payload);
        return record(RecordType::root, payload);
    }

    // Completes the archive and returns the bytes of the file.
    ByteVector finish() {
        const auto trailer = encodeTrailer(root().endBlock().trailer_);
        record(RecordType::trailer, {trailer.begin(), trailer.end()});
        static_cast<void>(stream_->finish({}));
        return archiveOf(fileHeader, blocks);
    }
    static ByteVector archiveOf(const ByteVector& header, const ByteVector& sealed) {
        return joined(joined(header, sealed), encodeFooter(header));
    }

    ByteVector blocks;  // sealed

    // Where the blocks begin in the file, and where the footer does.
    std::vector<std::size_t> positions{fileHeader.size()};

private:
    void reserve(std::size_t payload) {
        if (stream_->freeSpace().size() < recordHeaderSize + payload) stream_->pad();
    }

    IndexPartEncoder part_;
    IndexEntry index_;
    std::vector<std::pair<std::uint64_t, IndexEntry>> pending_;  // entries that no part covers yet
    std::uint64_t covered_ = 0;
    std::uint64_t next_ = 0;
    ArchiveRoot root_;
    Trailer trailer_;
    std::uint64_t entries_ = 0;
    bool announced_ = false;
    std::optional<BlockStream> stream_;  // destroyed first, because it appends blocks
};

}  // namespace tarnwick::test
