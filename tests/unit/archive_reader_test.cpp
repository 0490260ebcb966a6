#include "platform/archive/archive_reader.h"

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

// The reading of an archive in one way: what came to the sink, and the faults.
struct Reading {
    bool good = false;
    Seen seen;
    std::vector<ReadFault> faults = {};
};

Reading readWith(const ByteVector& bytes, const std::function<bool(ArchiveReader&, Recorder&, ReadFault&)>& read) {
    ReadFault fault;
    Recorder sink;
    const auto reader = openArchive(bytes, fault);
    const bool good = reader && read(*reader, sink, fault);
    return {good, sink.seen, {fault}};
}

Reading readAll(const ByteVector& bytes) {
    return readWith(bytes, [](auto& reader, auto& sink, auto& fault) { return reader.readAll(sink, fault); });
}

Reading readChosen(const ByteVector& bytes, std::string_view wanted = {}) {
    const auto chosen = [&](std::uint64_t, std::string_view path) { return wanted.empty() || path == wanted; };
    std::uint64_t taken = 0;
    return readWith(
        bytes, [&](auto& reader, auto& sink, auto& fault) { return reader.readChosen(chosen, sink, taken, fault); });
}

Reading salvage(const ByteVector& bytes) {
    std::vector<ReadFault> faults;
    auto reading = readWith(bytes, [&](auto& reader, auto& sink, auto&) {
        return reader.salvage(sink, [&](const ReadFault& found) { faults.push_back(found); });
    });
    reading.faults = faults;
    return reading;
}

// Four entries in as many blocks: two groups of two, then root and trailer.
struct SmallArchive {
    SmallArchive() {
        builder.file("one", "first content").endBlock().file("two", "second content").endBlock();
        builder.reference("three", 0, 0, 13).endIndexPart().endBlock().file("four", "fourth content");
        bytes = builder.finish();
        for (std::size_t i = 0; i + 1 < builder.positions.size(); ++i)
            blocks.emplace_back(bytes.begin() + std::ptrdiff_t(builder.positions[i]),
                                bytes.begin() + std::ptrdiff_t(builder.positions[i + 1]));
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
    const auto reading = readAll(damaged);
    EXPECT_FALSE(reading.good || reading.faults[0].what.empty()) << damage;
    for (const auto& seen : {reading.seen, readChosen(damaged).seen})
        for (std::size_t i = 0; i < seen.size(); ++i)
            EXPECT_TRUE(seen[i].ends_with('!') || seen[i] == archive.all[i]) << damage << ' ' << seen[i];
}

TEST(ArchiveReader, ReadsAllAndTakesOut) {
    const SmallArchive archive;
    EXPECT_TRUE(readAll(archive.bytes).good);
    EXPECT_EQ(readAll(archive.bytes).seen, archive.all);
    EXPECT_EQ(readChosen(archive.bytes).seen, archive.all);
    EXPECT_EQ(readChosen(archive.bytes, "three").seen, Seen{"three=first content"});
    EXPECT_EQ(readChosen(archive.bytes, "five").seen, Seen{});
    const auto empty = ArchiveBuilder().finish();
    EXPECT_TRUE(readAll(empty).good && readChosen(empty).good && readChosen(empty).seen.empty());

    struct : Recorder {
        bool data(Bytes) override { return false; }
    } stopping;
    ReadFault fault;
    std::uint64_t taken = 0;
    const auto all = [](std::uint64_t, std::string_view) { return true; };
    EXPECT_FALSE(openArchive(archive.bytes, fault)->readChosen(all, stopping, taken, fault));
    EXPECT_EQ(fault.what, "");
}

TEST(ArchiveDamage, EveryByteFlippedAndACutAtEveryLengthAreRefused) {
    const SmallArchive archive;
    for (std::size_t at = 0; at < archive.bytes.size(); at += damageStep) {
        auto damaged = archive.bytes;
        damaged[at] ^= static_cast<std::uint8_t>(1U << at % 8);
        expectRefused(archive, damaged, "flipped at " + std::to_string(at));
        damaged = archive.bytes;
        damaged.resize(at);
        expectRefused(archive, damaged, "cut at " + std::to_string(at));
    }
    auto longer = archive.bytes;
    longer.push_back(0);
    expectRefused(archive, longer, "one byte more");
}

TEST(ArchiveDamage, EveryBlockOutOfItsPlaceIsRefused) {
    const SmallArchive archive;
    const SmallArchive other;  // the same entries, to the same recipient
    const auto expectNot = [&](const std::string& damage, const auto& put) {
        auto blocks = archive.blocks;
        put(blocks);
        expectRefused(archive, archive.with(blocks), damage);
    };
    for (std::size_t i = 0; i < archive.blocks.size(); ++i) {
        const auto number = std::to_string(i);
        expectNot("dropped " + number, [&](auto& blocks) { blocks.erase(blocks.begin() + std::ptrdiff_t(i)); });
        expectNot("doubled " + number,
                  [&](auto& blocks) { blocks.insert(blocks.begin() + std::ptrdiff_t(i), archive.blocks[i]); });
        expectNot("of another archive " + number, [&](auto& blocks) { blocks[i] = other.blocks[i]; });
        for (std::size_t with = i + 1; with < archive.blocks.size(); ++with)
            expectNot("swapped " + number, [&](auto& blocks) { std::swap(blocks[i], blocks[with]); });
    }
    expectNot("a second last block", [&](auto& blocks) { blocks.push_back(other.blocks.back()); });
}

TEST(ArchiveDamage, IsNamedWithItsPlaceAndALeaderNeverNeedsADictionary) {
    const SmallArchive archive;
    auto damaged = archive.bytes;
    damaged[archive.builder.positions[1] + 20] ^= 1;
    const auto reading = readAll(damaged);
    EXPECT_EQ(reading.faults[0].block, 1U);
    EXPECT_EQ(reading.faults[0].position, archive.builder.positions[1]);
    EXPECT_EQ(reading.seen, Seen{"one=first content"});

    damaged = archive.bytes;
    damaged[archive.builder.positions[2] + 7] |= blockCompressed | blockWithDictionary;
    expectRefused(archive, damaged, "flags");
    damaged = archive.bytes;
    damaged[28] = 0;
    expectRefused(archive, damaged, "groups of nothing");
}

struct Lie {
    const char* name;
    std::function<void(ArchiveBuilder&)> tell;
};

TEST(ArchiveLies, OfIndexRootAndTrailerAreFound) {
    constexpr auto most = ~std::uint64_t{0};
    const Lie lies[] = {
        {"path", [](auto& b) { b.bendIndex = [](auto& e) { e.path = "elsewhere"; }; }},
        {"size", [](auto& b) { b.bendIndex = [](auto& e) { e.size += 1; }; }},
        {"type", [](auto& b) { b.bendIndex = [](auto& e) { e.type = EntryType::directory; }; }},
        {"mode", [](auto& b) { b.bendIndex = [](auto& e) { e.mode = 04755; }; }},
        {"block", [](auto& b) { b.bendIndex = [](auto& e) { e.block += 1; }; }},
        {"far block", [](auto& b) { b.bendIndex = [](auto& e) { e.block = most >> 1; }; }},
        {"offset", [](auto& b) { b.bendIndex = [](auto& e) { e.offset += 1; }; }},
        {"entries", [](auto& b) { b.bendRoot = [](auto& r) { ++r.entries; }; }},
        {"no parts", [](auto& b) { b.bendRoot = [](auto& r) { r.parts.clear(); }; }},
        {"part first", [](auto& b) { b.bendRoot = [](auto& r) { r.parts[0].first = 1; }; }},
        {"part block", [](auto& b) { b.bendRoot = [](auto& r) { r.parts[0].block = most; }; }},
        {"part offset", [](auto& b) { b.bendRoot = [](auto& r) { r.parts[0].offset = 0; }; }},
        {"length", [](auto& b) { b.bendRoot = [](auto& r) { ++r.sealedLengths[0]; }; }},
        {"lengths", [](auto& b) { b.bendRoot = [](auto& r) { r.sealedLengths.push_back(100); }; }},
        {"root position", [](auto& b) { b.bendTrailer = [](auto& t) { t.rootPosition = most; }; }},
        {"root sequence", [](auto& b) { b.bendTrailer = [](auto& t) { t.rootSequence = 0; }; }},
        {"trailer entries", [](auto& b) { b.bendTrailer = [](auto& t) { t.entries = most; }; }},
        {"trailer blocks", [](auto& b) { b.bendTrailer = [](auto& t) { t.blocks = 0; }; }},
    };
    for (const auto& lie : lies) {
        ArchiveBuilder builder;
        lie.tell(builder);
        const auto bytes = builder.file("one", "content").file("two", "content").finish();
        EXPECT_FALSE(readAll(bytes).good) << lie.name;
        for (const auto& seen : readChosen(bytes, "one").seen)
            EXPECT_TRUE(seen == "one=content" || seen == "one!") << lie.name << ' ' << seen;
    }
}

TEST(ArchiveLies, OfEntriesAreFound) {
    const auto sumOf = [](std::uint64_t size, std::uint64_t holes) { return tailOf(sha256("abc"), {{size, holes}}); };
    const ByteVector one{1}, most{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01};
    EntryHead seventh = ArchiveBuilder().head("x");
    seventh.number = 7;
    const Lie lies[] = {
        {"digest",
         [](auto& b) {
             b.entry(b.head("x"), "abc", tailOf(sha256("abd"), {{3, 0}}));
         }},
        {"size", [&](auto& b) { b.entry(b.head("x"), "abc", sumOf(4, 0)); }},
        {"holes", [&](auto& b) { b.entry(b.head("x"), "abc", sumOf(3, 1)); }},
        {"number", [&](auto& b) { b.entry(seventh, "abc", sumOf(3, 0)); }},
        {"directory with content", [](auto& b) { b.entry(b.head("x", EntryType::directory), "abc", {}); }},
        {"link without target", [](auto& b) { b.entry(b.head("x", EntryType::link), "", {}); }},
        {"itself", [](auto& b) { b.reference("x", 0, std::nullopt, 0); }},
        {"later", [](auto& b) { b.reference("x", 1, std::nullopt, 3).file("y", "abc"); }},
        {"chain", [](auto& b) { b.file("x", "abc").reference("y", 0, 0, 3).reference("z", 1, 1, 3); }},
        {"of a link", [](auto& b) { b.link("x", "abc").reference("y", 0, 0, 3); }},
        {"linked elsewhere", [](auto& b) { b.file("x", "a").file("y", "b").reference("z", 0, 1, 1); }},
        {"no end", [](auto& b) { b.begin(b.head("x")); }},
        {"outside of an entry", [](auto& b) { b.data("abc"); }},
        {"hole in a link",
         [&](auto& b) { b.begin(b.head("x", EntryType::link)).record(RecordType::hole, one).end({}, 1); }},
        {"huge holes", [&](auto& b) { b.begin(b.head("x")).record(RecordType::hole, most).end({}, 0); }},
        {"split without continuation",
         [](auto& b) {
             b.begin(b.head("x")).data(std::string(blockSize - 100, 'x'));
             b.record(RecordType::end, ByteVector(40), true).endBlock().file("y", "");
         }},
    };
    for (const auto& lie : lies) {
        ArchiveBuilder builder;
        lie.tell(builder);
        const auto reading = readAll(builder.finish());
        EXPECT_FALSE(reading.good || reading.faults[0].what.empty()) << lie.name;
    }
}

TEST(ArchiveLies, OfEntriesAreFoundByTheIndexToo) {
    ArchiveBuilder builder;
    EntryTail tail = tailOf(sha256("abd"));
    tail.contentOf = 0;
    ByteVector end;
    encodeEntryTail(tailOf(sha256("abc")), end);
    builder.file("a", "abc").entry(builder.head("b"), "", tail);
    builder.begin(builder.head("c")).data("abc").record(RecordType::index, end);
    const auto bytes = builder.end({}, 3).finish();
    EXPECT_EQ(readChosen(bytes, "b").seen, Seen{"b="});
    EXPECT_EQ(readChosen(bytes, "c").seen, Seen{"c!"});
}

TEST(ArchiveSalvage, SavesWhateverIsWholeWhateverByteIsFlipped) {
    const SmallArchive archive;
    const auto& positions = archive.builder.positions;
    // Blocks 0 and 2 lead 1 and 3; "three" stands in block 2 and has its content in block 0.
    const std::vector<std::size_t> needed[] = {{0}, {0, 1}, {0, 2}, {2, 3}};
    for (std::size_t at = plainHeaderSize; at < archive.bytes.size(); at += 3 * damageStep) {
        auto damaged = archive.bytes;
        damaged[at] ^= 0x40;
        const auto block =
            std::size_t(std::upper_bound(positions.begin(), positions.end(), at) - positions.begin() - 1);
        const auto reading = salvage(damaged);
        EXPECT_FALSE(reading.faults.empty()) << at;
        for (std::size_t i = 0; i < archive.all.size(); ++i)
            EXPECT_EQ(std::ranges::count(reading.seen, archive.all[i]), 1 - std::ranges::count(needed[i], block)) << at;
    }
}

TEST(ArchiveSalvage, ReadsBlocksOutOfOrderAndPastACut) {
    const SmallArchive archive;
    std::vector<ByteVector> shuffled;
    for (const std::size_t i : {3U, 0U, 5U, 1U, 1U, 4U, 2U}) shuffled.push_back(archive.blocks[i]);
    const auto reading = salvage(archive.with(shuffled));
    EXPECT_EQ(reading.seen, archive.all);
    EXPECT_FALSE(reading.faults.empty());

    auto cut = archive.bytes;
    cut.resize(archive.builder.positions[2] + 5);
    EXPECT_EQ(salvage(cut).seen, (Seen{archive.all[0], archive.all[1]}));
}

TEST(ArchiveSalvage, NamesLostEntriesFromTheIndexAndAbandonsTheCutOnes) {
    ArchiveBuilder builder(1);
    builder.begin(builder.head("a")).data("a").endBlock().data("a").end({}, 2).endBlock();
    auto bytes = builder.file("b", "b").endBlock().file("c", "c").finish();
    for (const std::size_t block : {1U, 2U}) bytes[builder.positions[block] + 20] ^= 1;
    const auto reading = salvage(bytes);
    EXPECT_EQ(reading.seen, (Seen{"a!", "c=c"}));
    std::string named;
    for (const auto& fault : reading.faults) named += fault.path ? *fault.path + ':' + fault.what + ';' : "";
    EXPECT_EQ(named, "a:a part of its content is lost;b:lost;");
}

TEST(ArchiveSalvage, IsNotKeptBusyByHeadersWithoutBlocks) {
    const SmallArchive archive;
    const auto header = encodeBlockHeader({blockSize / 2, blockCompressed, 1});
    std::vector<ByteVector> headers(20000, ByteVector(header.begin(), header.end()));
    headers.emplace_back(blockSize);
    EXPECT_TRUE(salvage(archive.with(headers)).seen.empty());
    headers.assign(1000000, ByteVector(blockMagic.begin(), blockMagic.end()));
    EXPECT_TRUE(salvage(archive.with(headers)).seen.empty());
}

}  // namespace
