// Writes small archives with any records in any order, also archives that contradict themselves.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
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

// Reads an archive in every way, into a Sink. The message of a fault is "SUBJECT: TEXT". An archive that cannot be
// opened has no entries.
template <typename Sink>
class ReadingInto {
public:
    using Opening = ArchiveReader::Opening;

    explicit ReadingInto(const ByteVector& bytes, Opening opening = Opening::intact) {
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

    Sink sink_;
    const ArchiveFile* file_ = nullptr;
    std::unique_ptr<ArchiveReader> reader_;
};

// Reads without keeping holes, which may be long. Sees "SIZE/HOLES", then "#" for a digest, "+N" for N attributes, and
// "!" for an incomplete entry.
struct FieldsSink : CheckingSink {
    bool hole(std::uint64_t) override { return true; }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        const bool finished = CheckingSink::finish({}, content);
        seen.back() = std::to_string(tail.totals->size) + '/' + std::to_string(tail.totals->holes);
        seen.back() += tail.digest ? "#" : "";
        if (tail.attributes) seen.back() += '+' + std::to_string(tail.attributes->size());
        seen.back() += tail.unreadable ? "!" : "";
        return finished;
    }
};

using Reading = ReadingInto<CheckingSink>;

// In every way, each of which reports the fault.
template <typename Sink = CheckingSink>
void expectEntries(const ByteVector& archive, const Seen& expected, const std::string& fault = "") {
    ReadingInto<Sink> reading(archive);
    EXPECT_EQ(reading.all(), expected);
    EXPECT_EQ(reading.chosen(), expected);
    EXPECT_EQ(reading.salvaged(), expected);
    EXPECT_EQ(reading.faults, fault + fault + fault);
}

// Records are not split, and PAD fills a block when the next one does not fit.
class ArchiveBuilder {
public:
    explicit ArchiveBuilder(LeaderChoice leaders = leaderForEachKind(2), const std::vector<Point>& to = recipients())
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
    std::function<void(IndexEntry&)> forgeIndex = [](IndexEntry&) {};

    ArchiveBuilder& record(RecordType type, ByteVector payload) {
        forge(type, payload);
        if (stream_->freeSpace().size() < recordHeaderSize + payload.size()) stream_->pad();
        place_ = {std::uint32_t(stream_->block()), std::uint32_t(stream_->offset())};
        std::array<std::uint8_t, recordHeaderSize> header{};
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
        head.type = type;
        head.digestAnnounced = std::exchange(announced_, false);
        head.path = path;
        ++entries_;
        record(RecordType::entry, encoded(encodeEntryHead, head));
        index_ = {place_.block, place_.offset, 0, type, path};
        return *this;
    }
    ArchiveBuilder& end(const EntryTail& tail, std::uint64_t size) {
        record(RecordType::end, encoded(encodeEntryTail, tail));
        index_.size = size;
        index_.incomplete = tail.unreadable.has_value();
        index_.span = place_.block - index_.block;
        forgeIndex(index_);
        pending_.emplace(next_ - 1, index_);
        return *this;
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
        const auto first = covered_;
        for (; count > 0 && !pending_.empty(); --count, ++covered_)
            part_.add(pending_.extract(pending_.begin()).mapped());
        ByteVector payload;
        part_.finish(payload);
        record(RecordType::index, payload);
        root_.parts.push_back({first, place_.block, place_.offset});
        return *this;
    }

    ArchiveBuilder& root() {
        if (!pending_.empty()) endIndexPart();
        static_cast<void>(endBlock().stream_->drain());
        if (!rootUsesLeaders) stream_->stopUsingLeaders();
        trailer_ = {blocks.size(), stream_->block(), entries_, stream_->block() + 2};
        root_.entries = entries_;
        root_.sealedLengths = stream_->sealedLengths();
        return record(RecordType::root, encoded(encodeRoot, root_));
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
    template <typename Value>
    static ByteVector encoded(void (*encode)(const Value&, ByteVector&), const Value& value) {
        ByteVector payload;
        encode(value, payload);
        return payload;
    }

    IndexPartEncoder part_;
    IndexEntry index_;
    std::multimap<std::uint64_t, IndexEntry> pending_;  // by number, the entries that no part covers yet
    std::uint32_t covered_ = 0;
    RecordPlace place_;  // of the last record
    std::uint64_t next_ = 0;
    ArchiveRoot root_;
    Trailer trailer_;
    std::uint64_t entries_ = 0;
    bool announced_ = false;
    std::optional<BlockStream> stream_;  // destroyed first, because it appends blocks
};

}  // namespace tarnwick::test
