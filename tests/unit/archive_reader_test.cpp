#include "qvx/archive_reader.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

// The thread sanitizer is slow, and the threads do not depend on the bytes.
#ifdef __SANITIZE_THREAD__
constexpr std::size_t damageStep = 31;
#else
constexpr std::size_t damageStep = 1;
#endif

// How reading an archive in one way ended. The message of a fault is "SUBJECT: TEXT".
struct Reading {
    bool complete = false;
    Seen seen;
    std::string faults;
};

template <typename Read>
Reading readWith(const ByteVector& bytes, const Read& read) {
    Reading reading;
    const auto report = [&](const ReadFault& fault) {
        reading.faults += (fault.subject.empty() ? "" : fault.subject + ": ") + fault.text + "; ";
    };
    CheckingSink sink;
    const auto reader = openArchive(bytes);
    const ReadOutcome outcome = reader ? read(**reader, sink, report) : ReadOutcome(reader.error());
    if (outcome.fault()) report(*outcome.fault());
    return {static_cast<bool>(outcome), sink.seen, reading.faults};
}

Reading readAll(const ByteVector& bytes) {
    return readWith(bytes, [](auto& reader, auto& sink, auto&) { return reader.readAll(sink); });
}

Reading readChosen(const ByteVector& bytes, std::string_view wanted = {}) {
    const auto choice = [&](std::uint64_t, std::string_view path) { return wanted.empty() || path == wanted; };
    return readWith(bytes, [&](auto& reader, auto& sink, auto&) { return reader.readChosen(choice, sink); });
}

Reading salvage(const ByteVector& bytes) {
    return readWith(bytes, [](auto& reader, auto& sink, auto& report) { return reader.salvage(sink, report); });
}

// Four entries in five blocks: two groups of two and the leader of a third; then root and trailer.
struct SmallArchive {
    SmallArchive() {
        builder.file("one", "first content").endBlock().file("two", "second content").endBlock();
        builder.reference("three", 0, 0, 13).endIndexPart().endBlock().begin("four").data("fourth ").endBlock();
        builder.data("content").end({.digest = sha256("fourth content")}, 14);
        bytes = builder.finish();
        const auto at = [&](std::size_t i) { return bytes.begin() + std::ptrdiff_t(builder.positions[i]); };
        for (std::size_t i = 0; i + 1 < builder.positions.size(); ++i) blocks.emplace_back(at(i), at(i + 1));
    }
    [[nodiscard]] ByteVector with(const std::vector<ByteVector>& others) const {
        ByteVector joined(bytes.begin(), bytes.begin() + plainHeaderSize);
        for (const auto& block : others) joined.insert(joined.end(), block.begin(), block.end());
        return joined;
    }

    ArchiveBuilder builder;
    ByteVector bytes;
    std::vector<ByteVector> blocks;
    const Seen all{"one=first content", "two=second content", "three=first content", "four=fourth content"};
};

// A damaged archive is refused, and the entries before the damage are right. Reading by the index gives no wrong entry
// either, though it may not come to the damage.
void expectRefused(const SmallArchive& archive, const ByteVector& damaged, const std::string& damage) {
    const auto reading = readAll(damaged);
    EXPECT_FALSE(reading.complete || reading.faults.empty()) << damage;
    for (const auto& seen : {reading.seen, readChosen(damaged).seen})
        for (std::size_t i = 0; i < seen.size(); ++i)
            EXPECT_TRUE(seen[i].ends_with('!') || seen[i] == archive.all[i]) << damage << ' ' << seen[i];
}

TEST(ArchiveReader, ReadsAllEntriesOrOnlyChosenOnes) {
    const SmallArchive archive;
    EXPECT_TRUE(readAll(archive.bytes).complete);
    EXPECT_EQ(readAll(archive.bytes).seen, archive.all);
    EXPECT_EQ(readChosen(archive.bytes).seen, archive.all);
    EXPECT_EQ(readChosen(archive.bytes, "three").seen, Seen{"three=first content"});
}

TEST(ArchiveReader, StopsWithoutFaultWhenTheSinkDoes) {
    const SmallArchive archive;
    struct : CheckingSink {
        bool data(Bytes) override { return false; }
    } stopping[3];
    const auto reader = std::move(*openArchive(archive.bytes));
    EXPECT_TRUE(reader->readAll(stopping[0]).isStopped());
    EXPECT_TRUE(reader->readChosen([](auto...) { return true; }, stopping[1]).isStopped());
    EXPECT_TRUE(reader->salvage(stopping[2], [](const ReadFault&) { FAIL(); }).isStopped());
}

TEST(ArchiveReader, AcceptsEntriesThatWereIncompleteWhenCaptured) {
    ArchiveBuilder builder;
    builder.begin("a").data("ab").record(RecordType::hole, {3}).data("c").record(RecordType::hole, {2});
    builder.end({.digest = sha256({"ab\0\0\0c\0\0", 8}), .unreadable = {{{2, 3}, {6, 2}}}}, 8);
    builder.begin("b").data("b").end({.unreadable = std::vector<Extent>()}, 1).reference("c", 1, 1, 1);
    builder.begin("d", EntryType::link).end({.unreadable = std::vector<Extent>()}, 0).file("e", "e");
    const auto bytes = builder.finish();
    EXPECT_EQ(readAll(bytes).faults, "");
    EXPECT_EQ(readAll(bytes).seen, (Seen{{"a=ab\0\0\0c\0\0", 10}, "b=b", "c=b", "d=", "e=e"}));
    std::string marks;
    const auto mark = [&](auto, const IndexEntry& entry) { return marks += entry.incomplete ? '!' : '-', true; };
    EXPECT_TRUE((*openArchive(bytes))->list(mark));
    EXPECT_EQ(marks, "!!-!-");
}

TEST(ArchiveDamage, RejectsEveryChangedByteAndEveryShorterLength) {
    const SmallArchive archive;
    for (std::size_t at = 0; at < archive.bytes.size(); at += damageStep) {
        auto changed = archive.bytes;
        changed[at] ^= static_cast<std::uint8_t>(1U << at % 8);
        expectRefused(archive, changed, "changed at " + std::to_string(at));
        expectRefused(archive, {archive.bytes.begin(), archive.bytes.begin() + std::ptrdiff_t(at)},
                      "cut at " + std::to_string(at));
    }
}

TEST(ArchiveDamage, RejectsHeadersThatWouldMakeTheReaderDivideByZeroOrWaitForItself) {
    const SmallArchive archive;
    auto zeroGroup = archive.bytes, needyLeader = archive.bytes;
    zeroGroup[28] = 0;
    needyLeader[archive.builder.positions[2] + 7] = blockCompressed | blockWithDictionary;
    expectRefused(archive, zeroGroup, "groups of no blocks");
    expectRefused(archive, needyLeader, "a leader that needs one");
}

TEST(ArchiveDamage, RejectsBlocksInAnyOtherOrder) {
    const SmallArchive archive;
    const SmallArchive other;  // the same entries, to the same recipient
    const auto expectNot = [&](const std::string& damage, std::size_t at, const auto& change) {
        auto blocks = archive.blocks;
        change(blocks, blocks.begin() + std::ptrdiff_t(at));
        expectRefused(archive, archive.with(blocks), damage + std::to_string(at));
    };
    for (std::size_t i = 0; i < archive.blocks.size(); ++i) {
        expectNot("dropped ", i, [](auto& blocks, auto at) { blocks.erase(at); });
        expectNot("doubled ", i, [&](auto& blocks, auto at) { blocks.insert(at, archive.blocks[i]); });
        expectNot("of another archive ", i, [&](auto&, auto at) { *at = other.blocks[i]; });
        for (std::size_t with = 0; with < i; ++with)
            expectNot("swapped ", i, [&](auto& blocks, auto at) { std::swap(*at, blocks[with]); });
    }
    expectNot("one byte more ", 0, [&](auto& blocks, auto) { blocks.push_back({0}); });
    expectNot("a second last block ", 0, [&](auto& blocks, auto) { blocks.push_back(other.blocks.back()); });
}

// Everything in index, root and trailer is in the entries too. A byte of an entry may change what nothing depends on.
TEST(ForgedArchive, RejectsEveryChangedByteOfIndexRootAndTrailer) {
    const Seen all{"one=content", "two=content", "three=one"};
    bool changed = true;
    for (std::size_t at = 0; changed; at += damageStep) {
        for (const std::uint8_t flip : {std::uint8_t{0x03}, std::uint8_t{0x80}}) {
            ArchiveBuilder builder;
            std::size_t position = 0;
            bool ofEntry = changed = false;
            builder.forge = [&](RecordType type, ByteVector& payload) {
                if (at >= position && at < position + payload.size()) {
                    payload[at - position] ^= flip;
                    changed = true;
                    ofEntry = type <= RecordType::end;
                }
                position += payload.size();
            };
            const auto bytes = builder.file("one", "content").reference("two", 0, 0, 7).link("three", "one").finish();
            const auto reading = readAll(bytes);
            EXPECT_TRUE(!changed || !reading.complete || (ofEntry && reading.seen == all)) << at;
            for (const auto& seen : readChosen(bytes).seen)
                EXPECT_TRUE(ofEntry || seen.ends_with('!') || std::ranges::count(all, seen) == 1) << at << ' ' << seen;
        }
    }
}

struct Forgery {
    const char* name;
    void (*build)(ArchiveBuilder&);
    const char* fault;
};

Tail totals(std::uint64_t size, std::uint64_t holes) { return {.totals = SparseTotals{size, holes}}; }
Tail unreadable(std::uint64_t offset, std::uint64_t length) { return {.unreadable = {{{offset, length}}}}; }
Tail digestOf(std::string_view content) { return {.digest = sha256(content)}; }
ByteVector endless() { return {255, 255, 255, 255, 255, 255, 255, 255, 255, 1}; }
Tail contentOf(std::uint64_t number, std::string_view content = "a") {
    return {.digest = sha256(content), .contentOf = number};
}
constexpr auto link = EntryType::link, folder = EntryType::directory;
constexpr auto hole = RecordType::hole;

// All of them are sealed correctly.
constexpr Forgery forgeries[] = {
    {"Size", [](auto& b) { b.begin("x").data("abc").end(totals(4, 0), 4); }, "x: the size does not match"},
    {"CountOfHoles", [](auto& b) { b.begin("x").data("abc").end(totals(3, 1), 3); }, "x: the size does not match"},
    {"Digest", [](auto& b) { b.begin("x").data("abc").end(digestOf("abd"), 3); }, "x: the digest does not match"},
    {"FolderWithContent", [](auto& b) { b.begin("", folder).data("a").end({}, 1); }, "/: a directory has content"},
    {"FolderWithDigest", [](auto& b) { b.begin("x", folder).end(digestOf(""), 0); }, "x: the entry has fields"},
    {"LinkWithTotals", [](auto& b) { b.begin("x", link).data("y").end(totals(1, 0), 1); }, "x: the entry has fields"},
    {"LinkWithoutTarget", [](auto& b) { b.begin("x", link).end({}, 0); }, "x: the link has no target"},
    {"LinkWithHole", [](auto& b) { b.begin("x", link).record(hole, {1}).end({}, 1); }, "x: a hole is malformed"},
    {"HugeHole", [](auto& b) { b.begin("x").record(hole, endless()).end({}, 0); }, "x: a hole is malformed"},
    {"RefersToItself", [](auto& b) { b.reference("x", 0, {}, 0); }, "x: the reference"},
    {"RefersToLaterEntry", [](auto& b) { b.reference("x", 1, {}, 3).file("y", "abc"); }, "x: the reference"},
    {"LinkedToLaterEntry", [](auto& b) { b.file("x", "a").reference("y", 0, 2, 1).file("z", "a"); },
     "y: the reference"},
    {"HasOwnContent", [](auto& b) { b.file("x", "a").begin("y").data("a").end(contentOf(0), 1); }, "y: the reference"},
    {"RefersToReference", [](auto& b) { b.file("x", "a").reference("y", 0, 0, 1).reference("z", 1, {}, 1); },
     "z: the entry with its content is missing or a different one"},
    {"RefersToLink", [](auto& b) { b.link("x", "a").reference("y", 0, 0, 1); }, "y: the entry with its content"},
    {"RefersToIncomplete",
     [](auto& b) { b.begin("x").record(hole, {4}).end(unreadable(0, 4), 4).reference("y", 0, {}, 4); },
     "y: the entry with its content is incomplete"},
    {"LinkedElsewhere", [](auto& b) { b.file("x", "a").file("y", "b").reference("z", 0, 1, 1); },
     "z: the entry that it is linked to"},
    {"DigestOfOther", [](auto& b) { b.file("x", "a").begin("y").end(contentOf(0, "b"), 1); }, "y: digest or size"},
    {"NoEnd", [](auto& b) { b.begin("x"); }, "x: the entry has no end"},
    {"EntryInEntry", [](auto& b) { b.begin("x").file("y", "a"); }, "x: the entry has no end"},
    {"DataAfterEntry", [](auto& b) { b.file("x", "a").data("b"); }, "a record is outside of an entry"},
    {"UnreadableTooLong", [](auto& b) { b.begin("x").record(hole, {4}).end(unreadable(1, 4), 4); },
     "x: the unreadable"},
    {"UnreadableButStored", [](auto& b) { b.begin("x").data("abc").end(unreadable(0, 3), 3); }, "x: the unreadable"},
    {"UnreadableFolder", [](auto& b) { b.begin("x", folder).end(unreadable(0, 1), 0); }, "x: the unreadable"},
    {"SplitNotContinued", [](auto& b) { b.begin("x").fillBlock(1).record(RecordType::end, {1}, true).data("y"); },
     "x: a split record is not continued"},
    {"EntryAfterRoot", [](auto& b) { b.file("x", "a").root().file("y", "b"); }, "an entry is after the root"},
    {"TwoRoots", [](auto& b) { b.file("x", "a").root().record(RecordType::root, {}); }, "there is a record after"},
    {"RootInBlock", [](auto& b) { b.file("x", "a").record(RecordType::root, {}); },
     "the root does not begin its block"},
    {"TrailerBeforeRoot", [](auto& b) { b.record(RecordType::trailer, {}); }, "the trailer is not where it must be"},
    {"EmptyPart", [](auto& b) { b.file("x", "a").endIndexPart().endIndexPart(); },
     "a part of the index covers no entry"},
};

TEST(ForgedArchive, RejectsContradictions) {
    for (const auto& [name, build, fault] : forgeries) {
        ArchiveBuilder builder;
        build(builder);
        const auto faults = readAll(builder.finish()).faults;
        EXPECT_TRUE(faults.starts_with(fault)) << name << ": " << faults;
    }
}

TEST(ForgedArchive, ComparesChosenEntriesWithTheirDigests) {
    ArchiveBuilder builder;
    builder.file("a", "abc").begin("b").end({.digest = sha256("abd"), .contentOf = 0}, 3);
    const auto bytes = builder.begin("c").data("abc").end(digestOf("abd"), 3).finish();
    EXPECT_EQ(readChosen(bytes, "b").seen, Seen{"b="});
    EXPECT_EQ(readChosen(bytes, "c").seen, Seen{"c!"});
}

TEST(ArchiveSalvage, KeepsEveryEntryWhoseBlocksAreIntact) {
    const SmallArchive archive;
    const auto& positions = archive.builder.positions;
    // Blocks 0 and 2 lead 1 and 3; "three" is in block 2 and has its content in block 0.
    const std::vector<std::ptrdiff_t> needed[] = {{0}, {0, 1}, {0, 2}, {2, 3, 4}};
    for (std::size_t at = plainHeaderSize; at < archive.bytes.size(); at += 3 * damageStep) {
        auto damaged = archive.bytes;
        damaged[at] ^= 0x40;
        const auto block = std::upper_bound(positions.begin(), positions.end(), at) - positions.begin() - 1;
        const auto reading = salvage(damaged);
        EXPECT_NE(reading.faults, "") << at;
        for (std::size_t i = 0; i < archive.all.size(); ++i)
            EXPECT_EQ(std::ranges::count(reading.seen, archive.all[i]), 1 - std::ranges::count(needed[i], block)) << at;
    }
}

TEST(ArchiveSalvage, ReadsBlocksInAnyOrderAndUpToACut) {
    const SmallArchive archive;
    std::vector<ByteVector> blocks;
    for (const std::size_t i : {3U, 0U, 6U, 1U, 1U, 4U, 5U, 2U}) blocks.push_back(archive.blocks[i]);
    EXPECT_EQ(salvage(archive.with(blocks)).seen, archive.all);
    EXPECT_NE(salvage(archive.with(blocks)).faults, "");
    const auto& cut = archive.blocks[2];
    blocks = {archive.blocks[0], archive.blocks[1], ByteVector(cut.begin(), cut.begin() + 5)};
    EXPECT_EQ(salvage(archive.with(blocks)).seen, (Seen{archive.all[0], archive.all[1]}));
}

TEST(ArchiveSalvage, EndsDespiteAMillionFalseHeaders) {
    const auto header = encodeBlockHeader({blockSize / 2, blockCompressed, 1});
    std::vector<ByteVector> blocks(1000000, ByteVector(header.begin(), header.end()));
    blocks.emplace_back(blockSize);
    EXPECT_TRUE(salvage(SmallArchive().with(blocks)).seen.empty());
    blocks.assign(1000000, ByteVector(blockMagic.begin(), blockMagic.end()));
    EXPECT_TRUE(salvage(SmallArchive().with(blocks)).seen.empty());
}

TEST(ArchiveSalvage, ReportsLostEntriesByNameAndAbandonsTheCutOnes) {
    ArchiveBuilder builder(1);
    builder.begin("a").data("a").endBlock().data("a").end({}, 2).endBlock();
    auto bytes = builder.file("b", "b").endBlock().file("c", "c").finish();
    for (const std::size_t block : {1U, 2U}) bytes[builder.positions[block] + 20] ^= 1;
    EXPECT_EQ(salvage(bytes).seen, (Seen{"a!", "c=c"}));
    EXPECT_EQ(
        salvage(bytes).faults,
        "blocks are missing or damaged up to block 2; a: a part of its content is lost; entry 1 is lost; b: lost; ");
}

}  // namespace
