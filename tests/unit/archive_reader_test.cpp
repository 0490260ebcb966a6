#include "qvx/archive_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

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

constexpr auto link = EntryType::link, folder = EntryType::directory;
constexpr auto hole = RecordType::hole, root = RecordType::root, pad = RecordType::pad;
constexpr auto addition = static_cast<RecordType>(0x40), splitEnd = static_cast<RecordType>(0x84);

// Four entries in five blocks: two groups of two and the leader of a third; then root and trailer.
struct SmallArchive {
    SmallArchive() {
        builder.file("one", "first content").endBlock().file("two", "second content").endBlock();
        builder.reference("three", 0, 13).endBlock();
        builder.announce().begin("four").data("fourth ").endBlock();
        builder.data("content").end({.digest = sha256("fourth content")}, 14);
        bytes = builder.finish();
        const auto at = [&](std::size_t i) { return bytes.begin() + std::ptrdiff_t(builder.positions[i]); };
        for (std::size_t i = 0; i + 1 < builder.positions.size(); ++i) blocks.emplace_back(at(i), at(i + 1));
    }
    [[nodiscard]] ByteVector with(const std::vector<ByteVector>& others) const {
        ByteVector sealed;
        for (const auto& block : others) sealed = joined(std::move(sealed), block);
        return ArchiveBuilder::archiveOf(builder.fileHeader, sealed);
    }

    ArchiveBuilder builder;
    ByteVector bytes;
    std::vector<ByteVector> blocks;
    const Seen all{"one=first content", "two=second content", "three=first content", "four=fourth content"};
};

ArchiveBuilder& addFiles(int count, ArchiveBuilder& builder) {
    while (count-- > 0) builder.file("x", "a");
    return builder;
}

// A damaged archive is refused, and the entries before the damage are right. Reading by the index gives no wrong entry
// either, though it may not come to the damage.
void expectRefused(const SmallArchive& archive, const ByteVector& damaged, const std::string& damage) {
    Reading reading(damaged);
    const Seen all = reading.all();
    EXPECT_NE(reading.faults, "") << damage;
    for (const auto& seen : {all, reading.chosen()})
        for (std::size_t i = 0; i < seen.size(); ++i)
            EXPECT_TRUE(seen[i].ends_with('!') || seen[i] == archive.all[i]) << damage << ' ' << seen[i];
}

LeaderChoice::Role leadersInTurn(std::uint64_t sequence, std::optional<std::uint32_t>) {
    if (sequence < maxLeaders) return {true};
    return {false, 7 * sequence % maxLeaders};
}

TEST(ArchiveReader, ReadsBlocksThatHaveDifferentLeaders) {
    ArchiveBuilder builder({leadersInTurn, maxLeaders});
    Seen all;
    for (char name = 'A'; name <= 'Z'; ++name) {
        builder.file({name}, {&name, 1}).endBlock();
        all.push_back({name, '=', name});
    }
    const auto bytes = builder.finish();
    expectEntries(bytes, all);
    for (const std::uint64_t step : {3U, 7U}) {
        const Seen seen = Reading(bytes).chosenBy([&](auto number, auto) { return number % step == 2; });
        for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], all[2 + i * step]);
        EXPECT_EQ(seen.size(), (25 - 2) / step + 1);
    }
}

// The leaders are much larger than the blocks that name them in turn.
TEST(ArchiveReader, OpensLeadersAgainForFewBlocksOnly) {
    ArchiveBuilder builder({leadersInTurn, maxLeaders});
    std::mt19937 random(1);
    for (std::size_t i = 0; i < 400; ++i) {
        std::string noise(i < maxLeaders ? 65536 : 1, ' ');
        std::ranges::generate(noise, [&] { return static_cast<char>(random()); });
        builder.file("x", noise).endBlock();
    }
    Reading reading(builder.finish());
    EXPECT_EQ(reading.all().size(), 400U);
    EXPECT_LT(reading.readings(), 3);
}

// The workers compute the digests of the first ones only.
TEST(ArchiveReader, ChecksTheDigestOfEachOfManyEntriesInABlock) {
    ArchiveBuilder builder;
    addFiles(5000, builder).announce().begin("y").data("a").end({.digest = sha256("b")}, 1);
    Reading reading(builder.finish());
    EXPECT_EQ(reading.all().size(), 5001U);
    EXPECT_EQ(reading.faults, "y: the digest does not match; ");
}

TEST(ArchiveDamage, RejectsEveryChangedByteAndEveryShorterLength) {
    const SmallArchive archive;
    for (std::size_t at = 0; at < archive.bytes.size(); at += damageStep) {
        for (auto changed = archive.bytes; const int bit : {2, 4}) {
            changed[at] = archive.bytes[at] ^ static_cast<std::uint8_t>(bit);
            expectRefused(archive, changed, "changed at " + std::to_string(at));
        }
        expectRefused(archive, {archive.bytes.begin(), archive.bytes.begin() + std::ptrdiff_t(at)},
                      "cut at " + std::to_string(at));
    }
}

TEST(ArchiveDamage, RejectsBlocksInAnyOtherOrder) {
    const SmallArchive archive;
    const SmallArchive other;  // the same entries, to the same recipient
    const auto& whole = archive.blocks;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        auto dropped = whole, doubled = whole, foreign = whole, swapped = whole;
        dropped.erase(dropped.begin() + std::ptrdiff_t(i));
        doubled.insert(doubled.begin() + std::ptrdiff_t(i), whole[i]);
        foreign[i] = other.blocks[i];
        std::swap(swapped[i], swapped[(i + 1) % whole.size()]);
        for (const auto& blocks : {dropped, doubled, foreign, swapped})
            expectRefused(archive, archive.with(blocks), "block " + std::to_string(i));
    }
    for (const auto& behind : {ByteVector{0}, other.blocks.back()}) {
        auto longer = whole;
        longer.push_back(behind);
        expectRefused(archive, archive.with(longer), "bytes after the last block");
    }
}

// Everything in index, root and trailer is in the entries too. A byte of an entry may change what nothing depends on.
TEST(ForgedArchive, RejectsEveryChangedByteOfIndexRootAndTrailer) {
    const Seen all{"one=content", "two=content", "three=one"};
    bool changed = true;
    for (std::size_t at = 0; changed; at += damageStep) {
        ArchiveBuilder builder;
        std::size_t position = 0;
        bool ofEntry = changed = false;
        builder.forge = [&](RecordType type, ByteVector& payload) {
            if (at >= position && at < position + payload.size()) {
                payload[at - position] ^= 0x03;
                changed = true;
                ofEntry = type <= RecordType::end;
            }
            position += payload.size();
        };
        Reading reading(builder.file("one", "content").reference("two", 0, 7).file("three", "one", link).finish());
        const Seen seen = reading.all();
        EXPECT_TRUE(!changed || !reading.faults.empty() || (ofEntry && seen == all)) << at;
    }
}

const ByteVector endless{255, 255, 255, 255, 255, 255, 255, 255, 255, 1};
EntryTail totals(std::uint64_t size, std::uint64_t holes) { return {.totals = SparseTotals{size, holes}}; }
EntryTail lost(std::uint64_t offset, std::uint64_t length) {
    return {.totals = {{4, 1}}, .unreadable = {{{offset, length}}}};
}
const AccessList list{{AccessRule::Kind::owner, 6}, {AccessRule::Kind::owningGroup, 4}, {AccessRule::Kind::others, 4}};
const EntryTail withList{.accessLists = {{list, {}}}}, withDefaultList{.accessLists = {{{}, list}}};
EntryTail digestOf(std::string_view content) { return {.digest = sha256(content)}; }

// Two entries in two blocks, and an index that says something else of them.
auto indexed(void (*forge)(IndexEntry&)) {
    return [forge](ArchiveBuilder& b) {
        b.forgeIndex = forge;
        b.file("x", "a").endBlock().file("y", "b").endIndexPart().endBlock();
    };
}

// All of them are sealed correctly.
TEST(ForgedArchive, RejectsContradictions) {
    const ByteVector padding(blockSize - 4);
    const std::string almostBlock(blockSize - 18, 'a'), longTarget(4096, 'a'), zeros(2, 0);
    const std::tuple<std::string, std::function<void(ArchiveBuilder&)>, const char*> forgeries[] = {
        {"size", [](auto& b) { b.begin("x").data("abc").end(totals(4, 0), 4); }, "x: the size"},
        {"count of holes", [](auto& b) { b.begin("x").data("abc").end(totals(3, 1), 3); }, "x: the size"},
        {"folder with content", [](auto& b) { b.begin("", folder).data("a").end({}, 1); }, "has content"},
        {"digest missing", [](auto& b) { b.announce().begin("x").data("a").end({}, 1); }, "x: the digest is missing"},
        {"hole: digest", [](auto& b) { b.announce().begin("x").record(hole, {1}).end(totals(1, 1), 1); }, "missing"},
        {"digest not announced", [](auto& b) { b.begin("x").end(digestOf(""), 0); }, "x: the entry has a digest"},
        {"digest of reference", [](auto& b) { b.file("x", "a").announce().reference("y", 0, 1); }, "reference"},
        {"hole without size", [](auto& b) { b.begin("x").record(hole, {1}).end({}, 1); }, "x: the size is missing"},
        {"size of link", [](auto& b) { b.begin("x", link).data("a").end(totals(1, 0), 1); }, "x: the entry has fields"},
        {"zero byte in target", [&](auto& b) { b.file("x", zeros, link); }, "x: the target"},
        {"long target", [&](auto& b) { b.file("x", longTarget, link); }, "x: the target"},
        {"reference of link", [](auto& b) { b.file("x", "a").begin("y", link).end({.contentOf = 0}, 1); }, "reference"},
        {"list of link", [](auto& b) { b.begin("x", link).data("a").end(withList, 1); }, "an access list"},
        {"default list of file", [](auto& b) { b.begin("x").end(withDefaultList, 0); }, "an access list"},
        {"padding in a split record",
         [&](auto& b) { b.begin("x").data(almostBlock).record(splitEnd, {0x40}).record(pad, padding).end({}, 0); },
         "x: a split record is not continued"},
        {"addition in an entry", [](auto& b) { b.begin("x").record(addition, {}).end({}, 0); }, "x: the entry has no"},
        {"addition after root", [](auto& b) { b.file("x", "a").root().record(addition, {}); }, "after the root"},
        {"link without target", [](auto& b) { b.begin("x", link).end({}, 0); }, "has no target"},
        {"link with a hole", [](auto& b) { b.begin("x", link).record(hole, {1}).end({}, 1); }, "a hole"},
        {"huge hole", [](auto& b) { b.begin("x").record(hole, endless).end({}, 0); }, "a hole"},
        {"has own content", [](auto& b) { b.file("x", "a").begin("y").data("a").end({.contentOf = 0}, 1); },
         "reference"},
        {"empty data", [](auto& b) { b.begin("x").data("").end({}, 0); }, "x: a part of the content is empty"},
        {"refers to itself", [](auto& b) { b.reference("x", 0, 1); }, "x: the reference"},
        {"refers to later entry", [](auto& b) { b.reference("x", 1, 3).file("y", "abc"); }, "x: the entry with"},
        {"refers to no entry", [](auto& b) { b.reference("x", 5, 1); }, "x: the entry with its"},
        {"refers to copy", [](auto& b) { b.file("z", "a").reference("y", 0, 1).reference("x", 1, 1); },
         "x: the entry with its"},
        {"refers to later copy",
         [](auto& b) { b.number(2).file("z", "a").number(1).reference("y", 2, 1).number(0).reference("x", 1, 1); },
         "x: the entry with its"},
        {"refers to link", [](auto& b) { b.file("y", "a", link).reference("x", 0, 1); }, "x: the entry with its"},
        {"refers to incomplete",
         [](auto& b) { b.begin("y").record(hole, {4}).end(lost(0, 4), 4).reference("x", 0, 4); }, "incomplete"},
        {"refers to another digest",
         [](auto& b) { b.announce().begin("y").data("abc").end(digestOf("abd"), 3).reference("x", 0, 3); },
         "y: the digest does not match"},
        {"no end", [](auto& b) { b.begin("x"); }, "x: the entry has no end"},
        {"entry in an entry", [](auto& b) { b.begin("x").file("y", "a"); }, "x: the entry has no end"},
        {"data after entry", [](auto& b) { b.file("x", "a").data("b"); }, "outside of an entry"},
        {"unreadable past end", [](auto& b) { b.begin("x").record(hole, {4}).end(lost(1, 4), 4); }, "the unreadable"},
        {"unreadable but stored", [](auto& b) { b.begin("x").data("abc").end(lost(0, 3), 3); }, "the unreadable"},
        {"unreadable folder", [](auto& b) { b.begin("x", folder).end(lost(0, 1), 0); }, "the unreadable"},
        {"entry after root", [](auto& b) { b.file("x", "a").root().file("y", "b"); }, "an entry is after the root"},
        {"two roots", [](auto& b) { b.file("x", "a").root().record(root, {}); }, "there is a record after"},
        {"root inside block", [](auto& b) { b.file("x", "a").record(root, {}); }, "does not begin its block"},
        {"root leads", [](auto& b) { b.file("x", "a").endBlock().endIndexPart().rootUsesLeaders = true; }, "a leader"},
        {"root needs leader", [](auto& b) { b.file("x", "a").rootUsesLeaders = true; }, "a leader"},
        {"trailer before root", [](auto& b) { b.record(RecordType::trailer, {}); }, "the trailer is not where"},
        {"index: block", indexed([](auto& entry) { entry.block = 0; }), "does not agree"},
        {"index: incomplete", indexed([](auto& entry) { entry.incomplete = true; }), "does not agree"},
        {"index: part before its entry", indexed([](auto& entry) { entry.block += 1; }), "before an entry"},
        {"number twice", [](auto& b) { b.file("x", "a", link).number(0).file("x", "a", link); }, "does not agree"},
        {"number of a file twice", [](auto& b) { b.file("x", "a").number(0).file("y", "b"); }, "y: an earlier entry"},
        {"entry not indexed", [](auto& b) { b.begin("x", folder).record(RecordType::end, {0}); }, "the root does not"},
        {"part of 127 entries", [](auto& b) { addFiles(128, b).endIndexPart(127); }, "covers too few"},
    };
    for (const auto& [name, build, fault] : forgeries) {
        ArchiveBuilder builder;
        build(builder);
        Reading reading(builder.finish());
        reading.all();
        EXPECT_NE(reading.faults.find(fault), std::string::npos) << name << ": " << reading.faults;
        reading.faults.clear();
        if (name.starts_with("index: part")) reading.listed();
        EXPECT_EQ(reading.faults.empty(), !name.starts_with("index: part")) << name;
        // Where the content is comes from the index alone, if only the reference is chosen.
        const Seen chosen = name.starts_with("refers") ? reading.chosen({"x"}) : Seen();
        for (const auto& seen : chosen) EXPECT_TRUE(seen == "x=" || seen == "x!") << name << ' ' << seen;
    }
}

TEST(ForgedArchive, KeepsEntriesBetweenAdditionsAndPadding) {
    ArchiveBuilder builder;
    builder.record(addition, {1}).file("x", "a").record(addition, {}).endBlock();
    builder.record(pad, ByteVector(blockSize - 4)).file("y", "b");
    expectEntries(builder.finish(), {"x=a", "y=b"});
}

// Only a reader of the entry with too many zeros knows that they come before the last one.
TEST(ForgedArchive, RejectsDigestAfterTooManyZeros) {
    const ByteVector tooLong{0x81, 0x80, 0x80, 0x80, 0x40};  // 2^34 + 1
    auto tail = totals(maxDigestedZeros + 1, 1), last = totals(1, 1);
    for (const bool digest : {false, true}) {
        ArchiveBuilder builder;
        if (digest) last.digest = sha256({"", 1});
        builder.announce().begin("x").record(hole, tooLong).end(tail, maxDigestedZeros + 1);
        const auto bytes = builder.file("y", "abc").announce().begin("z").record(hole, {1}).end(last, 1).finish();
        expectEntries<FieldsSink>(bytes, {"17179869185/1", "3/0#", digest ? "z!" : "1/1"},
                                  digest ? "z: the entry has a digest, but must not have one; " : "");
        ReadingInto<FieldsSink> some(bytes);
        EXPECT_EQ(some.chosen({"y", "z"}), (Seen{"3/0#", digest ? "1/1#" : "1/1"}));
        EXPECT_EQ(some.faults, "");
    }
    tail.digest = Digest{};
    ReadingInto<FieldsSink> alone(ArchiveBuilder().announce().begin("x").record(hole, tooLong).end(tail, 0).finish());
    EXPECT_EQ(alone.chosen(), Seen{"x!"});
    EXPECT_NE(alone.faults, "");
}

TEST(ArchiveSalvage, KeepsEveryEntryWhoseBlocksAreIntact) {
    const SmallArchive archive;
    const auto& positions = archive.builder.positions;
    // Blocks 0 and 2 lead 1 and 3; "three" is in block 2 and has its content in block 0.
    const std::vector<std::ptrdiff_t> needed[] = {{0}, {0, 1}, {0, 2}, {2, 3, 4}};
    for (std::size_t at = positions.front(); at < positions.back(); at += 3 * damageStep) {
        auto damaged = archive.bytes;
        damaged[at] ^= 0x40;
        const auto block = std::upper_bound(positions.begin(), positions.end(), at) - positions.begin() - 1;
        Reading reading(damaged, Reading::Opening::salvage);
        const Seen seen = reading.salvaged();
        EXPECT_NE(reading.faults, "") << at;
        for (std::size_t i = 0; i < archive.all.size(); ++i)
            EXPECT_EQ(std::ranges::count(seen, archive.all[i]), 1 - std::ranges::count(needed[i], block)) << at;
    }
}

TEST(ArchiveSalvage, ReadsBlocksInAnyOrderAndUpToACut) {
    const SmallArchive archive;
    const auto& whole = archive.blocks;
    const ByteVector cut{whole[2].begin(), whole[2].begin() + 5};
    const std::pair<std::vector<ByteVector>, Seen> cases[] = {
        {{whole[3], whole[0], whole[6], whole[1], whole[1], whole[4], whole[5], whole[2]}, archive.all},
        // The index is where it was.
        {{whole[1], whole[0], whole[2], whole[3], whole[4], whole[5], whole[6]}, archive.all},
        {{whole[0], whole[1], cut}, {archive.all[0], archive.all[1]}},
    };
    for (const auto& [blocks, expected] : cases) {
        Reading reading(archive.with(blocks));
        EXPECT_EQ(reading.salvaged(), expected);
        EXPECT_NE(reading.faults, "");
    }
}

TEST(ArchiveSalvage, FindsBlocksWithHighNumbersInAShortRest) {
    ArchiveBuilder builder;
    for (int i = 0; i < 100; ++i) builder.file(std::to_string(i), "a").endBlock();
    const auto bytes = builder.finish();
    const ByteVector rest(bytes.begin() + std::ptrdiff_t(builder.positions[98]), bytes.end());
    EXPECT_EQ(Reading(rest, Reading::Opening::salvage).salvaged(), (Seen{"98=a", "99=a"}));
}

TEST(ArchiveSalvage, ReportsWhatIsNoRecordBehindAllIndexedEntries) {
    Reading reading(ArchiveBuilder().file("x", "a").endIndexPart().record(static_cast<RecordType>(8), {}).finish());
    EXPECT_EQ(reading.salvaged(), Seen{"x=a"});
    EXPECT_EQ(reading.faults, "the block contains something that is not a record; ");
}

}  // namespace
