#include "qvx/archive_reader.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

// The thread sanitizer looks at the threads, not at the bytes.
#ifdef __SANITIZE_THREAD__
constexpr std::size_t damageStep = 31;
#else
constexpr std::size_t damageStep = 1;
#endif

// What came of reading an archive in one way.
enum Way { whole, byIndex, salvaged };
struct Reading {
    bool good = false;
    Seen seen;
    std::string told;
};

std::string message(const ReadFault& fault) {
    return (fault.subject.empty() ? "" : fault.subject + ": ") + fault.text + "; ";
}

Reading read(const ByteVector& bytes, Way way, std::string_view wanted = {}) {
    const auto reader = openArchive(bytes);
    if (!reader) return {false, {}, message(reader.error())};
    CheckingSink sink;
    std::string told;
    const auto chosen = [&](std::uint64_t, std::string_view path) { return wanted.empty() || path == wanted; };
    const auto report = [&](const ReadFault& fault) { told += message(fault); };
    const auto outcome = way == whole     ? (*reader)->readAll(sink)
                         : way == byIndex ? (*reader)->readChosen(chosen, sink)
                                          : (*reader)->salvage(sink, report);
    if (outcome.fault()) report(*outcome.fault());
    return {static_cast<bool>(outcome), sink.seen, told};
}

// Four entries in five blocks: two groups of two and the third's leader; then root and trailer.
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

// A damaged archive is refused, and what came through before the damage is right. Through the index nothing wrong
// comes out either, though the damage may be where nobody looks.
void expectRefused(const SmallArchive& archive, const ByteVector& damaged, const std::string& damage) {
    const auto reading = read(damaged, whole);
    EXPECT_FALSE(reading.good || reading.told.empty()) << damage;
    for (const auto& seen : {reading.seen, read(damaged, byIndex).seen})
        for (std::size_t i = 0; i < seen.size(); ++i)
            EXPECT_TRUE(seen[i].ends_with('!') || seen[i] == archive.all[i]) << damage << ' ' << seen[i];
}

TEST(ArchiveReader, ReadsAllAndTakesOut) {
    const SmallArchive archive;
    EXPECT_TRUE(read(archive.bytes, whole).good && read(archive.bytes, whole).seen == archive.all);
    EXPECT_EQ(read(archive.bytes, byIndex).seen, archive.all);
    EXPECT_EQ(read(archive.bytes, byIndex, "three").seen, Seen{"three=first content"});

    struct : CheckingSink {
        bool data(Bytes) override { return false; }
    } stopping;
    EXPECT_TRUE((*openArchive(archive.bytes))->readChosen([](auto...) { return true; }, stopping).isStopped());
}

// What is missing was so when it was captured, and is no damage.
TEST(ArchiveReader, TakesIncompleteEntries) {
    struct : CheckingSink {
        bool finish(const EntryTail& tail, const ContentReader& content) override {
            told += tail.unreadable ? std::to_string(tail.unreadable->size()) : "-";
            return CheckingSink::finish(tail, content);
        }
        std::string told;
    } sink;
    ArchiveBuilder builder;
    builder.begin("a").data("ab").record(RecordType::hole, {3}).data("c").record(RecordType::hole, {2});
    builder.end({.digest = sha256({"ab\0\0\0c\0\0", 8}), .unreadable = {{{2, 3}, {6, 2}}}}, 8);
    builder.begin("b").data("b").end({.unreadable = std::vector<Extent>()}, 1).reference("c", 1, 1, 1);
    builder.begin("d", EntryType::link).end({.unreadable = std::vector<Extent>()}, 0).file("e", "e");
    const auto reader = std::move(*openArchive(builder.finish()));
    EXPECT_TRUE(reader->readAll(sink));
    EXPECT_EQ(sink.told, "20-0-");
    EXPECT_EQ(sink.seen, (Seen{{"a=ab\0\0\0c\0\0", 10}, "b=b", "c=b", "d=", "e=e"}));
    std::string marks;
    EXPECT_TRUE(reader->list([&](auto, const IndexEntry& entry) { return marks += entry.incomplete ? '!' : '-', true; }));
    EXPECT_EQ(marks, "!!-!-");
}

TEST(ArchiveDamage, OfAnyByteOrLengthIsRefused) {
    const SmallArchive archive;
    const auto expectNot = [&](std::size_t at, std::uint8_t byte) {
        auto damaged = archive.bytes;
        damaged[at] = byte;
        expectRefused(archive, damaged, "changed at " + std::to_string(at));
    };
    for (std::size_t at = 0; at < archive.bytes.size(); at += damageStep) {
        expectNot(at, static_cast<std::uint8_t>(archive.bytes[at] ^ 1U << at % 8));
        expectRefused(archive, {archive.bytes.begin(), archive.bytes.begin() + std::ptrdiff_t(at)},
                      "cut at " + std::to_string(at));
    }
    expectNot(28, 0);                                                                    // groups of nothing
    expectNot(archive.builder.positions[2] + 7, blockCompressed | blockWithDictionary);  // a leader that needs one
}

TEST(ArchiveDamage, OfTheOrderOfBlocksIsRefused) {
    const SmallArchive archive;
    const SmallArchive other;  // the same entries, to the same recipient
    const auto expectNot = [&](const std::string& damage, std::size_t at, const auto& put) {
        auto blocks = archive.blocks;
        put(blocks, blocks.begin() + std::ptrdiff_t(at));
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

// Index, root and trailer say nothing that stands nowhere else. Of an entry goes by what nothing depends on.
TEST(ArchiveLies, OfAnyByteBehindAGoodSealAreFound) {
    const Seen all{"one=content", "two=content", "three=one"};
    bool bent = true;
    for (std::size_t at = 0; bent; at += damageStep) {
        for (const std::uint8_t flip : {std::uint8_t{0x03}, std::uint8_t{0x80}}) {
            ArchiveBuilder builder;
            std::size_t position = 0;
            bool ofEntry = bent = false;
            builder.bend = [&](RecordType type, ByteVector& payload) {
                if (at >= position && at < position + payload.size()) {
                    payload[at - position] ^= flip;
                    bent = true;
                    ofEntry = type <= RecordType::end;
                }
                position += payload.size();
            };
            const auto bytes = builder.file("one", "content").reference("two", 0, 0, 7).link("three", "one").finish();
            const auto reading = read(bytes, whole);
            EXPECT_TRUE(!bent || !reading.good || (ofEntry && reading.seen == all)) << at;
            for (const auto& seen : read(bytes, byIndex).seen)
                EXPECT_TRUE(ofEntry || seen.ends_with('!') || std::ranges::count(all, seen) == 1) << at << ' ' << seen;
        }
    }
}

TEST(ArchiveLies, OfEntriesThatDoNotGoTogetherAreFound) {
    ByteVector endless(10, 255);
    endless.back() = 1;
    const std::string filler(blockSize - 25, 'x');
    const Digest abc = sha256("abc");
    const std::pair<const char*, std::function<void(ArchiveBuilder&)>> lies[] = {
        {"totals",
         [&](auto& b) {
             b.begin("x").data("abc").end({.digest = abc, .totals = SparseTotals{4, 0}}, 4);
         }},
        {"holes",
         [&](auto& b) {
             b.begin("x").data("abc").end({.digest = abc, .totals = SparseTotals{3, 1}}, 3);
         }},
        {"directory with content", [](auto& b) { b.begin("x", EntryType::directory).data("abc").end({}, 3); }},
        {"link without target", [](auto& b) { b.begin("x", EntryType::link).end({}, 0); }},
        {"itself", [](auto& b) { b.reference("x", 0, std::nullopt, 0); }},
        {"later", [](auto& b) { b.reference("x", 1, std::nullopt, 3).file("y", "abc"); }},
        {"chain", [](auto& b) { b.file("x", "abc").reference("y", 0, 0, 3).reference("z", 1, std::nullopt, 3); }},
        {"of a link", [](auto& b) { b.link("x", "abc").reference("y", 0, 0, 3); }},
        {"linked elsewhere", [](auto& b) { b.file("x", "a").file("y", "b").reference("z", 0, 1, 1); }},
        {"no end", [](auto& b) { b.begin("x"); }},
        {"outside of an entry", [](auto& b) { b.data("abc"); }},
        {"hole in a link", [](auto& b) { b.begin("x", EntryType::link).record(RecordType::hole, {1}).end({}, 1); }},
        {"content of its own", [](auto& b) { b.file("x", "abc").begin("y").data("abc").end({.contentOf = 0}, 3); }},
        {"hole without end", [&](auto& b) { b.begin("x").record(RecordType::hole, endless).end({}, 0); }},
        {"unreadable past the end",
         [](auto& b) {
             b.begin("x").record(RecordType::hole, {4}).end({.unreadable = {{{1, 4}}}}, 4);
         }},
        {"unreadable and stored",
         [](auto& b) {
             b.begin("x").data("abc").end({.unreadable = {{{0, 3}}}}, 3);
         }},
        {"unreadable directory",
         [](auto& b) {
             b.begin("x", EntryType::directory).end({.unreadable = {{{0, 1}}}}, 0);
         }},
        {"incomplete content",
         [](auto& b) {
             b.begin("x").record(RecordType::hole, {4}).end({.unreadable = {{{0, 4}}}}, 4);
             b.reference("y", 0, std::nullopt, 4);
         }},
        {"unreadable reference",
         [](auto& b) {
             b.begin("x").record(RecordType::hole, {4}).end({}, 4);
             b.begin("y").end({.contentOf = 0, .unreadable = {{{0, 1}}}}, 4);
         }},
        {"split without continuation", [&](auto& b) { b.begin("x").data(filler).record(RecordType::end, {1}, true); }},
    };
    for (const auto& [name, tell] : lies) {
        ArchiveBuilder builder;
        tell(builder);
        const auto reading = read(builder.finish(), whole);
        EXPECT_FALSE(reading.good || reading.told.empty()) << name;
    }

    // What the index leads to is taken out without a look at the rest, and still held to its own digest.
    ArchiveBuilder builder;
    builder.file("a", "abc").begin("b").end({.digest = sha256("abd"), .contentOf = 0}, 3);
    const auto bytes = builder.begin("c").data("abc").end({.digest = sha256("abd")}, 3).finish();
    EXPECT_EQ(read(bytes, byIndex, "b").seen, Seen{"b="});
    EXPECT_EQ(read(bytes, byIndex, "c").seen, Seen{"c!"});
}

TEST(ArchiveSalvage, SavesWhateverIsWholeWhateverByteIsFlipped) {
    const SmallArchive archive;
    const auto& positions = archive.builder.positions;
    // Blocks 0 and 2 lead 1 and 3; "three" stands in block 2 and has its content in block 0.
    const std::vector<std::ptrdiff_t> needed[] = {{0}, {0, 1}, {0, 2}, {2, 3, 4}};
    for (std::size_t at = plainHeaderSize; at < archive.bytes.size(); at += 3 * damageStep) {
        auto damaged = archive.bytes;
        damaged[at] ^= 0x40;
        const auto block = std::upper_bound(positions.begin(), positions.end(), at) - positions.begin() - 1;
        const auto reading = read(damaged, salvaged);
        EXPECT_NE(reading.told, "") << at;
        for (std::size_t i = 0; i < archive.all.size(); ++i)
            EXPECT_EQ(std::ranges::count(reading.seen, archive.all[i]), 1 - std::ranges::count(needed[i], block)) << at;
    }
}

TEST(ArchiveSalvage, ReadsBlocksOutOfOrderAndPastACutAndEndsWithoutAny) {
    const SmallArchive archive;
    std::vector<ByteVector> blocks;
    for (const std::size_t i : {3U, 0U, 6U, 1U, 1U, 4U, 5U, 2U}) blocks.push_back(archive.blocks[i]);
    EXPECT_EQ(read(archive.with(blocks), salvaged).seen, archive.all);
    EXPECT_NE(read(archive.with(blocks), salvaged).told, "");
    blocks = {archive.blocks[0], archive.blocks[1],
              ByteVector(archive.blocks[2].begin(), archive.blocks[2].begin() + 5)};
    EXPECT_EQ(read(archive.with(blocks), salvaged).seen, (Seen{archive.all[0], archive.all[1]}));

    // Headers that promise blocks, and the beginnings of headers.
    const auto header = encodeBlockHeader({blockSize / 2, blockCompressed, 1});
    blocks.assign(1000000, ByteVector(header.begin(), header.end()));
    blocks.emplace_back(blockSize);
    EXPECT_TRUE(read(archive.with(blocks), salvaged).seen.empty());
    blocks.assign(1000000, ByteVector(blockMagic.begin(), blockMagic.end()));
    EXPECT_TRUE(read(archive.with(blocks), salvaged).seen.empty());
}

TEST(ArchiveSalvage, NamesLostEntriesFromTheIndexAndAbandonsTheCutOnes) {
    ArchiveBuilder builder(1);
    builder.begin("a").data("a").endBlock().data("a").end({}, 2).endBlock();
    auto bytes = builder.file("b", "b").endBlock().file("c", "c").finish();
    for (const std::size_t block : {1U, 2U}) bytes[builder.positions[block] + 20] ^= 1;
    const auto reading = read(bytes, salvaged);
    EXPECT_EQ(reading.seen, (Seen{"a!", "c=c"}));
    EXPECT_EQ(reading.told, "blocks are missing or damaged up to block 2; a: a part of its content is lost; entry 1 is lost; b: lost; ");
}

}  // namespace
