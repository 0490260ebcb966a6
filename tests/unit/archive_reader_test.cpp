#include "platform/archive/archive_reader.h"

#include <gtest/gtest.h>

#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

using Seen = std::vector<std::string>;

// The thread sanitizer looks at the threads, not at the bytes.
#ifdef __SANITIZE_THREAD__
constexpr std::size_t damageStep = 31;
#else
constexpr std::size_t damageStep = 1;
#endif

EVP_PKEY* recipient() {
    static const KeyHandle key = generatePrivateKey();
    return key.get();
}

// The reading of all of an archive: what came to the sink, and the fault.
struct Reading {
    explicit Reading(const ByteVector& bytes) {
        const auto reader = openArchive(bytes, recipient(), fault);
        good = reader && reader->readAll(sink, fault);
    }
    Recorder sink;
    ReadFault fault;
    bool good = false;
};

Seen listPaths(const ByteVector& bytes) {
    ReadFault fault;
    Seen paths;
    const auto reader = openArchive(bytes, recipient(), fault);
    const auto visit = [&](std::uint64_t, const IndexEntry& entry) {
        paths.push_back(entry.path);
        return true;
    };
    if (!reader || !reader->list(visit, fault)) paths.push_back("fault: " + fault.what);
    return paths;
}

Seen readPath(const ByteVector& bytes, std::string_view wanted) {
    ReadFault fault;
    Recorder sink;
    std::uint64_t taken = 0;
    const auto reader = openArchive(bytes, recipient(), fault);
    const auto chosen = [&](std::uint64_t, std::string_view path) { return path == wanted; };
    if (!reader || !reader->readChosen(chosen, sink, taken, fault)) sink.seen.push_back("fault: " + fault.what);
    return sink.seen;
}

// Four entries in as many blocks: two groups of two, then root and trailer.
struct SmallArchive {
    SmallArchive() : builder(recipient()) {
        builder.file("one", "first content");
        builder.endBlock();
        builder.file("two", "second content");
        builder.endBlock();
        builder.reference("three", 0, 0, 13);
        builder.endIndexPart();
        builder.endBlock();
        builder.file("four", "fourth content");
        bytes = builder.finish();
    }
    [[nodiscard]] ByteVector block(std::size_t number) const {
        const auto& positions = builder.positions();
        return {bytes.begin() + static_cast<std::ptrdiff_t>(positions[number]),
                bytes.begin() + static_cast<std::ptrdiff_t>(positions[number + 1])};
    }
    [[nodiscard]] ByteVector header() const { return {bytes.begin(), bytes.begin() + plainHeaderSize}; }
    [[nodiscard]] std::size_t blocks() const { return builder.positions().size() - 1; }

    ArchiveBuilder builder;
    ByteVector bytes;
    const Seen all{"one=first content", "two=second content", "three=first content", "four=fourth content"};
};

void append(ByteVector& bytes, const ByteVector& more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

// A damaged archive is refused, and what came through before the damage is right.
void expectRefused(const SmallArchive& archive, const ByteVector& damaged, const std::string& damage) {
    const Reading reading(damaged);
    EXPECT_FALSE(reading.good) << damage;
    EXPECT_FALSE(reading.fault.what.empty()) << damage;
    for (std::size_t i = 0; i < reading.sink.seen.size(); ++i) {
        const std::string& seen = reading.sink.seen[i];
        EXPECT_TRUE(seen.ends_with('!') || seen == archive.all[i]) << damage << ' ' << seen;
    }
}

TEST(ArchiveReader, ReadsAllAndListsAndTakesOut) {
    const SmallArchive archive;
    const Reading reading(archive.bytes);
    EXPECT_TRUE(reading.good) << reading.fault.what;
    EXPECT_EQ(reading.sink.seen, archive.all);
    EXPECT_EQ(listPaths(archive.bytes), (Seen{"one", "two", "three", "four"}));
    EXPECT_EQ(readPath(archive.bytes, "four"), Seen{"four=fourth content"});
    EXPECT_EQ(readPath(archive.bytes, "three"), Seen{"three=first content"});
    EXPECT_EQ(readPath(archive.bytes, "five"), Seen{});

    const ByteVector empty = ArchiveBuilder(recipient()).finish();
    EXPECT_TRUE(Reading(empty).good);
    EXPECT_EQ(listPaths(empty), Seen{});
}

TEST(ArchiveReader, ReadsContentOverManyBlocks) {
    ArchiveBuilder builder(recipient(), 3);
    std::string content;
    for (std::uint32_t i = 0; content.size() < 7 * blockSize; ++i) content += std::to_string(i * 2654435761U) + '\n';
    builder.file("small", "x");
    builder.file("large", content);
    builder.file("behind", "y");
    const ByteVector bytes = builder.finish();
    const Reading reading(bytes);
    EXPECT_TRUE(reading.good) << reading.fault.what;
    EXPECT_EQ(reading.sink.seen, (Seen{"small=x", "large=" + content, "behind=y"}));
    EXPECT_EQ(readPath(bytes, "large"), Seen{"large=" + content});
    EXPECT_EQ(readPath(bytes, "behind"), Seen{"behind=y"});
}

TEST(ArchiveDamage, EveryByteFlippedIsRefused) {
    const SmallArchive archive;
    for (std::size_t at = 0; at < archive.bytes.size(); at += damageStep) {
        ByteVector damaged = archive.bytes;
        damaged[at] ^= static_cast<std::uint8_t>(1U << at % 8);
        expectRefused(archive, damaged, "flipped at " + std::to_string(at));
    }
}

TEST(ArchiveDamage, ACutAtEveryLengthIsRefused) {
    const SmallArchive archive;
    for (std::size_t length = 0; length < archive.bytes.size(); length += damageStep) {
        const ByteVector cut(archive.bytes.begin(), archive.bytes.begin() + static_cast<std::ptrdiff_t>(length));
        expectRefused(archive, cut, "cut at " + std::to_string(length));
    }
    ByteVector longer = archive.bytes;
    longer.push_back(0);
    expectRefused(archive, longer, "one byte more");
}

TEST(ArchiveDamage, EveryBlockOutOfItsPlaceIsRefused) {
    const SmallArchive archive;
    const SmallArchive other;  // the same entries, to the same recipient
    const std::size_t count = archive.blocks();
    const auto rebuild = [&](const std::function<void(ByteVector&, std::size_t)>& put, const std::string& damage) {
        ByteVector damaged = archive.header();
        for (std::size_t i = 0; i < count; ++i) put(damaged, i);
        expectRefused(archive, damaged, damage);
    };
    for (std::size_t which = 0; which < count; ++which) {
        const std::string name = std::to_string(which);
        rebuild(
            [&](ByteVector& to, std::size_t i) {
                if (i != which) append(to, archive.block(i));
            },
            "dropped " + name);
        rebuild(
            [&](ByteVector& to, std::size_t i) {
                append(to, archive.block(i));
                if (i == which) append(to, archive.block(i));
            },
            "doubled " + name);
        rebuild([&](ByteVector& to, std::size_t i) { append(to, (i == which ? other : archive).block(i)); },
                "exchanged " + name);
        for (std::size_t with = which + 1; with < count; ++with)
            rebuild(
                [&](ByteVector& to, std::size_t i) {
                    append(to, archive.block(i == which ? with : i == with ? which : i));
                },
                "swapped " + name + " with " + std::to_string(with));
    }
    ByteVector both = archive.bytes;
    append(both, other.block(count - 1));
    expectRefused(archive, both, "a second last block");
}

TEST(ArchiveDamage, IsNamedWithItsPlace) {
    const SmallArchive archive;
    ByteVector damaged = archive.bytes;
    damaged[archive.builder.positions()[1] + 20] ^= 1;
    const Reading reading(damaged);
    EXPECT_EQ(reading.fault.block, 1U);
    EXPECT_EQ(reading.fault.position, archive.builder.positions()[1]);
    EXPECT_EQ(reading.sink.seen, Seen{"one=first content"});
}

TEST(ArchiveLies, OfIndexRootAndTrailerAreFound) {
    struct Lie {
        const char* name;
        std::function<void(ArchiveBuilder&)> tell;
    };
    const std::vector<Lie> lies{
        {"path", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.path = "elsewhere"; }; }},
        {"size", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.size += 1; }; }},
        {"type", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.type = EntryType::directory; }; }},
        {"mode", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.mode = 04755; }; }},
        {"block", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.block += 1; }; }},
        {"far block", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.block = ~std::uint64_t{0} >> 1; }; }},
        {"offset", [](auto& b) { b.bendIndex = [](IndexEntry& e) { e.offset += 1; }; }},
        {"entries", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { ++r.entries; }; }},
        {"no parts", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { r.parts.clear(); }; }},
        {"part first", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { r.parts[0].first = 1; }; }},
        {"part block", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { r.parts[0].block = ~std::uint64_t{0}; }; }},
        {"part offset", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { r.parts[0].offset = 0; }; }},
        {"length", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { ++r.sealedLengths[0]; }; }},
        {"lengths", [](auto& b) { b.bendRoot = [](ArchiveRoot& r) { r.sealedLengths.push_back(100); }; }},
        {"root position", [](auto& b) { b.bendTrailer = [](Trailer& t) { t.rootPosition = ~std::uint64_t{0}; }; }},
        {"root sequence", [](auto& b) { b.bendTrailer = [](Trailer& t) { t.rootSequence = 0; }; }},
        {"trailer entries", [](auto& b) { b.bendTrailer = [](Trailer& t) { t.entries = ~std::uint64_t{0}; }; }},
        {"trailer blocks", [](auto& b) { b.bendTrailer = [](Trailer& t) { t.blocks = 0; }; }},
    };
    for (const auto& lie : lies) {
        ArchiveBuilder builder(recipient());
        lie.tell(builder);
        builder.file("one", "content");
        builder.file("two", "content");
        const ByteVector bytes = builder.finish();
        EXPECT_FALSE(Reading(bytes).good) << lie.name;
        // Through a bent index nothing wrong comes out: the right entry, or none.
        listPaths(bytes);
        for (const auto& seen : readPath(bytes, "one"))
            EXPECT_TRUE(seen == "one=content" || seen == "one!" || seen.starts_with("fault: ")) << lie.name << seen;
    }
}

TEST(ArchiveLies, OfEntriesAreFound) {
    struct Lie {
        const char* name;
        std::function<void(ArchiveBuilder&)> tell;
    };
    const auto entry = [](ArchiveBuilder& b, const EntryHead& head, std::string_view content, const EntryTail& tail) {
        b.begin(head);
        b.record(RecordType::data, bytesOf(content));
        b.end(tail, content.size());
    };
    const std::vector<Lie> lies{
        {"digest",
         [&](auto& b) {
             entry(b, b.head("x"), "abc", tailOf(sha256("abd"), SparseSum{3, 0}));
         }},
        {"size",
         [&](auto& b) {
             entry(b, b.head("x"), "abc", tailOf(sha256("abc"), SparseSum{4, 0}));
         }},
        {"holes",
         [&](auto& b) {
             entry(b, b.head("x"), "abc", tailOf(sha256("abc"), SparseSum{3, 1}));
         }},
        {"number",
         [&](auto& b) {
             auto head = b.head("x");
             head.number = 7;
             entry(b, head, "abc", tailOf(sha256("abc"), SparseSum{3, 0}));
         }},
        {"directory with content", [&](auto& b) { entry(b, b.head("x", EntryType::directory), "abc", {}); }},
        {"link without target", [&](auto& b) { entry(b, b.head("x", EntryType::link), "", {}); }},
        {"itself", [](auto& b) { b.reference("x", 0, std::nullopt, 0); }},
        {"later",
         [](auto& b) {
             b.reference("x", 1, std::nullopt, 3);
             b.file("y", "abc");
         }},
        {"chain",
         [](auto& b) {
             b.file("x", "abc");
             b.reference("y", 0, 0, 3);
             b.reference("z", 1, 1, 3);
         }},
        {"of a link",
         [](auto& b) {
             b.link("x", "abc");
             b.reference("y", 0, 0, 3);
         }},
        {"linked elsewhere",
         [](auto& b) {
             b.file("x", "a");
             b.file("y", "b");
             b.reference("z", 0, 1, 1);
         }},
        {"no end", [](auto& b) { b.begin(b.head("x")); }},
        {"outside of an entry", [](auto& b) { b.record(RecordType::data, bytesOf("abc")); }},
        {"hole in a link",
         [](auto& b) {
             const std::uint8_t one = 1;
             b.begin(b.head("x", EntryType::link));
             b.record(RecordType::hole, Bytes(&one, 1));
             b.end({}, 1);
         }},
        {"huge holes",
         [](auto& b) {
             const ByteVector most{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01};
             b.begin(b.head("x"));
             b.record(RecordType::hole, most);
             b.end({}, 0);
         }},
        {"split without continuation",
         [](auto& b) {
             b.begin(b.head("x"));
             b.record(RecordType::data, ByteVector(blockSize - 100));
             b.rawRecord(RecordType::end, true, ByteVector(40));
             b.endBlock();
             b.file("y", "");
         }},
    };
    for (const auto& lie : lies) {
        ArchiveBuilder builder(recipient());
        lie.tell(builder);
        const Reading reading(builder.finish());
        EXPECT_FALSE(reading.good) << lie.name;
        EXPECT_FALSE(reading.fault.what.empty()) << lie.name;
    }
}

// ---- salvage ----

struct Salvage {
    explicit Salvage(const ByteVector& bytes) {
        ReadFault fault;
        const auto reader = openArchive(bytes, recipient(), fault);
        if (reader) reader->salvage(sink, [this](const ReadFault& found) { faults.push_back(found); });
    }
    [[nodiscard]] bool saved(const std::string& entry) const {
        return std::find(sink.seen.begin(), sink.seen.end(), entry) != sink.seen.end();
    }
    Recorder sink;
    std::vector<ReadFault> faults;
};

TEST(ArchiveSalvage, SavesWhateverIsWholeWhateverByteIsFlipped) {
    const SmallArchive archive;
    const auto& positions = archive.builder.positions();
    for (std::size_t at = plainHeaderSize; at < archive.bytes.size(); at += 3 * damageStep) {
        ByteVector damaged = archive.bytes;
        damaged[at] ^= 0x40;
        const Salvage salvage(damaged);
        EXPECT_FALSE(salvage.faults.empty()) << at;
        // Blocks 0 and 2 lead 1 and 3; "three" has its content in block 0.
        const auto damagedBlock =
            static_cast<std::size_t>(std::upper_bound(positions.begin(), positions.end(), at) - positions.begin() - 1);
        EXPECT_EQ(salvage.saved(archive.all[0]), damagedBlock != 0) << at;
        EXPECT_EQ(salvage.saved(archive.all[1]), damagedBlock != 0 && damagedBlock != 1) << at;
        EXPECT_EQ(salvage.saved(archive.all[2]), damagedBlock != 0 && damagedBlock != 2) << at;
        EXPECT_EQ(salvage.saved(archive.all[3]), damagedBlock != 2 && damagedBlock != 3) << at;
    }
}

TEST(ArchiveSalvage, ReadsBlocksOutOfOrderAndPastACut) {
    const SmallArchive archive;
    ByteVector shuffled = archive.header();
    for (const std::size_t i : {3U, 0U, 5U, 1U, 1U, 4U, 2U}) append(shuffled, archive.block(i));
    const Salvage fromShuffled(shuffled);
    EXPECT_EQ(fromShuffled.sink.seen, archive.all);
    EXPECT_FALSE(fromShuffled.faults.empty());

    ByteVector cut = archive.bytes;
    cut.resize(archive.builder.positions()[2] + 5);
    const Salvage fromCut(cut);
    EXPECT_EQ(fromCut.sink.seen, (Seen{archive.all[0], archive.all[1]}));
}

TEST(ArchiveSalvage, NamesLostEntriesFromTheIndexAndAbandonsTheCutOnes) {
    ArchiveBuilder builder(recipient(), 1);
    builder.file("a", std::string(blockSize, 'a'));
    builder.endBlock();
    builder.file("b", "b");
    builder.endBlock();
    builder.file("c", "c");
    ByteVector bytes = builder.finish();
    bytes[builder.positions()[1] + 20] ^= 1;  // the end of a
    bytes[builder.positions()[2] + 20] ^= 1;  // b
    const Salvage salvage(bytes);
    EXPECT_EQ(salvage.sink.seen, (Seen{"a!", "c=c"}));
    std::string named;
    for (const auto& fault : salvage.faults) named += fault.path ? *fault.path + ':' + fault.what + ';' : "";
    EXPECT_EQ(named, "a:a part of its content is lost;b:lost;");
}

TEST(ArchiveSalvage, IsNotKeptBusyByHeadersWithoutBlocks) {
    const SmallArchive archive;
    ByteVector bytes = archive.header();
    for (int i = 0; i < 20000; ++i) {
        const auto header = encodeBlockHeader({blockSize / 2, blockCompressed, 1});
        bytes.insert(bytes.end(), header.begin(), header.end());
    }
    bytes.resize(bytes.size() + blockSize);
    EXPECT_TRUE(Salvage(bytes).sink.seen.empty());
}

}  // namespace
