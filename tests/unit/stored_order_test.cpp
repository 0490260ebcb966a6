// Archives whose entries are stored in another order than that of their numbers, honest and hostile.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "qvx/listing.h"
#include "unit/archive_builder.h"
#include "unit/peak_memory.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

std::string name(std::size_t number) { return "n" + std::to_string(number); }

// Numbers 300 to 0 in blocks of 40, the parts of the index in between; number 7 has the content of 200, which is stored
// before it, as have 1 and 0.
struct Shuffled {
    Shuffled() {
        for (std::size_t number = 300; number >= 128; --number) add(number);
        for (std::size_t number = 0; number < 128; ++number) add(number);
        builder.endIndexPart(128);
        bytes = builder.finish();
    }
    void add(std::size_t number) {
        builder.number(number);
        const bool refers = number == 7 || number < 2;
        if (refers) builder.reference(name(number), 200, 11);
        if (!refers) builder.file(name(number), "content " + std::to_string(number));
        expected.push_back(name(number) + "=content " + std::to_string(refers ? 200 : number));
        if (expected.size() % 40 == 0) builder.endBlock();
    }

    ArchiveBuilder builder;
    Seen expected;  // in the order of the archive
    ByteVector bytes;
};

TEST(StoredOrder, IsReadInEveryWay) {
    const Shuffled archive;
    Seen names;
    for (std::size_t number = 0; number <= 300; ++number) names.push_back(name(number));
    expectEntries(archive.bytes, archive.expected);
    Reading reading(archive.bytes);
    EXPECT_EQ(reading.listed(), names);
    EXPECT_EQ(reading.chosen({"n5", "n290"}), (Seen{"n290=content 290", "n5=content 5"}));
    // Last come those whose content is not chosen.
    EXPECT_EQ(reading.chosen({"n1", "n0", "n2"}), (Seen{"n2=content 2", "n0=content 200", "n1=content 200"}));
    EXPECT_EQ(reading.faults, "");
}

// The content is in another entry, so this entry is delivered late; but the one that was stored last must remain.
TEST(StoredOrder, LateEntryDoesNotReplaceALaterOneOfItsPath) {
    ArchiveBuilder builder;
    builder.file("a", "old").reference("x", 0, 3).reference("y", 0, 3).file("x", "new");
    Reading reading(builder.finish());
    EXPECT_EQ(reading.chosen({"x", "y"}), (Seen{"x=new", "y=old"}));
    EXPECT_EQ(reading.faults, "");
}

TEST(StoredOrder, LateEntriesWhosePathsHaveOneHashAreBothRead) {
    const std::string one = "the same3JE6PN72hYrU0MpQ", other = "the sameP1lp1sD5RUBVhOP3";  // std::hash of libstdc++
    Reading reading(ArchiveBuilder().file("a", "1").reference(one, 0, 1).reference(other, 0, 1).finish());
    EXPECT_EQ(reading.chosen({one, other}), (Seen{one + "=1", other + "=1"}));
}

// Reading through the index comes to the entry, not to the index's end.
TEST(StoredOrder, RejectsAChosenEntryThatIsNotWhereTheIndexSays) {
    const std::pair<const char*, std::function<void(IndexEntry&)>> forgeries[] = {
        {"block", [](auto& entry) { entry.block = 1; }},
        {"offset", [](auto& entry) { entry.offset += 1; }},
        {"span too short", [](auto& entry) { entry.span = 0; }},
        {"span too long", [](auto& entry) { entry.span = 2; }},
        {"span past the end", [](auto& entry) { entry.span = 1000; }},
        {"mark", [](auto& entry) { entry.incomplete = true; }},
        {"path", [](auto& entry) { entry.path = "y"; }},
    };
    for (const auto& [fault, forge] : forgeries) {
        ArchiveBuilder builder;
        builder.forgeIndex = forge;
        builder.announce().begin("x").data("ab").endBlock().data("cd").end({.digest = sha256("abcd")}, 4).endBlock();
        Reading reading(builder.data("").finish());
        EXPECT_EQ(std::ranges::count(reading.chosen(), "x=abcd"), 0) << fault;
        EXPECT_NE(reading.faults, "") << fault;
    }
}

// Blocks 0 to 39 have an entry each; after them, each entry is referred to in turn. Work that is done again for each
// reference would read the archive thousands of times.
ByteVector scattered() {
    ArchiveBuilder builder;
    for (int i = 0; i < 40; ++i) builder.file("content", "text").endBlock();
    for (std::size_t i = 0; i < 32000; ++i) {
        builder.reference("r" + std::to_string(i), i % 40, 4);
        if (i % 1000 == 999) builder.endIndexPart();
    }
    return builder.finish();
}

// None of the references is delivered with its content in memory.
TEST(StoredOrder, OpensEachBlockOnceForAllReferences) {
    Reading reading(scattered());
    const Seen seen = reading.chosenBy([](auto, auto path) { return path[0] == 'r'; });
    EXPECT_EQ(std::ranges::count_if(seen, [](auto& entry) { return entry.ends_with("=text"); }), 32000);
    EXPECT_LT(reading.readings(), 10);
}

TEST(StoredOrder, LimitsTheBlocksThatReferencesOpenAgain) {
    for (const bool whole : {true, false}) {
        Reading reading(scattered());
        const Seen seen = whole ? reading.all() : reading.salvaged();
        EXPECT_EQ(seen.size(), 32040U);
        EXPECT_EQ(seen.back(), "r31999=");
        EXPECT_EQ(seen[40], "r0=text");
        EXPECT_LT(reading.readings(), 20);
    }
}

// The ENTRY of each even number is malformed.
TEST(StoredOrder, NamesLostEntriesInOneWalkOfTheIndex) {
    constexpr std::size_t count = 64000;
    ArchiveBuilder builder;
    std::size_t number = 0;
    builder.forge = [&](RecordType type, ByteVector& payload) {
        if (type == RecordType::entry && number % 2 == 0) payload.push_back(0);
    };
    for (; number < count; ++number) {
        builder.begin(name(number), EntryType::directory).end({}, 0);
        if (number % 1000 == 999) builder.endIndexPart();
    }
    Reading reading(builder.finish());
    EXPECT_EQ(reading.salvaged().size(), count / 2);
    for (const std::size_t lost : {0U, 2U, 63998U})
        EXPECT_NE(reading.faults.find(name(lost) + ": lost; "), std::string::npos) << lost;
    EXPECT_EQ(reading.faults.find(name(1) + ": lost; "), std::string::npos);
    EXPECT_NE(reading.faults.find("is malformed; the block has more entries with faults; n0: lost; "),
              std::string::npos);
    EXPECT_LT(reading.readings(), 10);
}

TEST(StoredOrder, CountsLostEntriesWithoutAnIndex) {
    const Shuffled archive;
    auto bytes = archive.bytes;
    bytes[archive.builder.positions[1] + 40] ^= 1;
    bytes.resize(bytes.size() - 1);
    Reading reading(bytes, Reading::Opening::salvage);
    EXPECT_EQ(reading.salvaged().size(), archive.expected.size() - 40);
    EXPECT_NE(reading.faults.find("entries lost whose names are not known: 40"), std::string::npos) << reading.faults;
}

// Each header costs an attempt to unseal a block of 1 MiB.
TEST(StoredOrder, EndsTheSearchAmongFalseBlockHeaders) {
    ByteVector bytes = ArchiveBuilder().file("x", "a").finish();
    for (std::uint64_t i = 0; i < 200; ++i) {
        const auto header = encodeBlockHeader({blockSize + tagSize, 0, i});
        bytes.insert(bytes.end(), header.begin(), header.end());
    }
    bytes.resize(bytes.size() + 2 * blockSize);
    Reading reading(bytes, Reading::Opening::salvage);
    EXPECT_EQ(reading.salvaged(), Seen{"x=a"});
    EXPECT_NE(reading.faults.find("ended early"), std::string::npos) << reading.faults;
    EXPECT_LT(reading.readings(), 20);
}

#ifndef __SANITIZE_ADDRESS__  // it has an allocator of its own
// 90 MB of paths, more than all memory that may be used.
TEST(StoredOrder, KeepsNoPathOfAnEntryInMemory) {
    constexpr std::size_t count = 24000, maxKilobytes = 81920 + 64 * count / 1024;
    const std::string path(3800, 'p');
    const auto reader = [&] {
        ArchiveBuilder builder;
        for (std::size_t i = 0; i < count; ++i) builder.number((i * 7919 + 1) % count).file(path + name(i), "x");
        return std::move(*openArchive(builder.finish()));
    }();
    const int output = ::dup(STDOUT_FILENO), null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::size_t listed = 0;
    const auto countOne = [&](auto, const auto&) { return ++listed > 0; };
    CheckSink check("archive");
    JsonSink json("");
    EXPECT_LT(peakOf([&] { EXPECT_TRUE(reader->list(countOne)); }), maxKilobytes);
    EXPECT_EQ(listed, count);
    EXPECT_LT(peakOf([&] { EXPECT_TRUE(reader->readAll(check)); }), maxKilobytes);
    std::fflush(stdout);
    ::dup2(null, STDOUT_FILENO);
    EXPECT_LT(peakOf([&] { EXPECT_TRUE(reader->readAll(json)); }), maxKilobytes);
    EXPECT_TRUE(json.finishLines());
    std::fflush(stdout);
    ::dup2(output, STDOUT_FILENO);
    EXPECT_LT(peakOf([&] { EXPECT_TRUE(reader->salvage(check, [](const ReadFault&) {})); }), maxKilobytes);
}
#endif

}  // namespace
