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

constexpr auto link = EntryType::link, folder = EntryType::directory;

// An archive that is read in every way. The message of a fault is "SUBJECT: TEXT".
class Reading {
public:
    explicit Reading(const ByteVector& bytes) {
        auto file = archiveFile(bytes);
        file_ = file.get();
        reader_ = std::move(*ArchiveReader::open(std::move(file), recipient(), ArchiveReader::Opening::salvage));
    }

    Seen all() { return outcome(reader_->readAll(sink)); }
    Seen chosen(const Seen& paths) {
        return chosenBy([&](auto, std::string_view path) { return std::ranges::find(paths, path) != paths.end(); });
    }
    Seen chosenBy(const EntryChoice& choice) { return outcome(reader_->readChosen(choice, sink)); }
    Seen salvaged() {
        return outcome(reader_->salvage(sink, [&](const ReadFault& fault) { report(fault); }));
    }
    Seen listed() {
        Seen paths;
        const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
            EXPECT_EQ(number, paths.size());
            paths.push_back(entry.path);
            return true;
        };
        if (const auto list = reader_->list(visit); !list) report(list.error());
        return paths;
    }

    // How often each byte of the archive was read, roughly: each block costs its length.
    [[nodiscard]] double readings() const { return double(file_->bytesRead()) / double(file_->size()); }

    std::string faults;
    CheckingSink sink;

private:
    Seen outcome(const ReadOutcome& outcome) {
        if (outcome.fault()) report(*outcome.fault());
        return std::exchange(sink.seen, {});
    }
    void report(const ReadFault& fault) {
        faults += (fault.subject.empty() ? "" : fault.subject + ": ") + fault.text + "; ";
    }

    const ArchiveFile* file_ = nullptr;
    std::unique_ptr<ArchiveReader> reader_;
};

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
        if (refers) builder.reference(name(number), 200, false, 11);
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
    Reading reading(archive.bytes);
    Seen names;
    for (std::size_t number = 0; number <= 300; ++number) names.push_back(name(number));
    EXPECT_EQ(reading.listed(), names);
    EXPECT_EQ(reading.all(), archive.expected);
    EXPECT_EQ(reading.salvaged(), archive.expected);
    EXPECT_EQ(reading.chosen(names), archive.expected);
    EXPECT_EQ(reading.chosen({"n5", "n290"}), (Seen{"n290=content 290", "n5=content 5"}));
    // Last come those whose content is not chosen.
    EXPECT_EQ(reading.chosen({"n1", "n0", "n2"}), (Seen{"n2=content 2", "n0=content 200", "n1=content 200"}));
    EXPECT_EQ(reading.faults, "");
}

// The content is in another entry, so this entry is delivered late; but the one that was stored last must remain.
TEST(StoredOrder, LateEntryDoesNotReplaceALaterOneOfItsPath) {
    ArchiveBuilder builder;
    builder.file("a", "old").reference("x", 0, false, 3).reference("y", 0, false, 3).file("x", "new");
    Reading reading(builder.finish());
    EXPECT_EQ(reading.chosen({"x", "y"}), (Seen{"x=new", "y=old"}));
    EXPECT_EQ(reading.faults, "");
}

// All of them are sealed correctly; the fault is in the numbers, in the index or in its place.
TEST(StoredOrder, RejectsAnIndexThatDoesNotAgreeWithTheEntries) {
    constexpr const char *disagrees = "does not agree", *early = "before an entry";
    const auto forged = [](auto member, auto value) {
        return [=](ArchiveBuilder& b) {
            b.forgeIndex = [=](std::uint64_t number, IndexEntry& entry) {
                if (number == 1) entry.*member = value;
            };
            b.file("x", "a").file("y", "b").file("z", "c").endBlock();
        };
    };
    const std::tuple<const char*, std::function<void(ArchiveBuilder&)>, const char*> forgeries[] = {
        {"block",
         [](auto& b) {
             b.forgeIndex = [](std::uint64_t number, IndexEntry& entry) {
                 entry.block = number == 1 ? 0 : entry.block;
             };
             b.file("x", "a").endBlock().file("y", "b");
         },
         disagrees},
        {"offset", forged(&IndexEntry::offset, 4U), disagrees},
        {"span", forged(&IndexEntry::span, 1U), disagrees},
        {"type", forged(&IndexEntry::type, link), disagrees},
        {"path", forged(&IndexEntry::path, "w"), disagrees},
        {"mode", forged(&IndexEntry::mode, std::uint16_t{1}), disagrees},
        {"user", forged(&IndexEntry::userId, 1U), disagrees},
        {"group", forged(&IndexEntry::groupId, 1U), disagrees},
        {"size", forged(&IndexEntry::size, 2U), disagrees},
        {"time", forged(&IndexEntry::modifiedSeconds, 1), disagrees},
        {"incomplete", forged(&IndexEntry::incomplete, true), disagrees},
        {"number twice", [](auto& b) { b.file("x", "a", link).number(0).file("x", "a", link); }, disagrees},
        {"number of a file twice", [](auto& b) { b.file("x", "a").number(0).file("y", "b"); },
         "y: an earlier entry has"},
        {"number missing", [](auto& b) { b.file("x", "a").number(2).file("y", "b"); }, disagrees},
        {"entry not indexed", [](auto& b) { b.begin("x", folder).record(RecordType::end, {0}); }, "the root does not"},
        {"part before its entry",
         [](auto& b) {
             b.forgeIndex = [](std::uint64_t number, IndexEntry& entry) { entry.block += number; };
             b.file("x", "a").file("y", "b").endIndexPart().endBlock();
         },
         early},
        {"part of 127 entries",
         [](auto& b) {
             for (int i = 0; i < 128; ++i) b.file("x", "a");
             b.endIndexPart(127);
         },
         "covers too few"},
        {"reference to a later end", [](auto& b) { b.reference("x", 1, false, 1).file("y", "a"); },
         "x: the entry with its"},
        {"reference to a reference of a higher number",
         [](auto& b) {
             b.number(2).file("x", "a").number(1).reference("y", 2, false, 1).number(0).reference("z", 1, false, 1);
         },
         "z: the entry with its"},
    };
    for (const auto& [fault, build, expected] : forgeries) {
        ArchiveBuilder builder;
        build(builder);
        Reading reading(builder.finish());
        reading.all();
        EXPECT_NE(reading.faults.find(expected), std::string::npos) << fault << ": " << reading.faults;
    }
}

// Reading through the index comes to the entry, not to the index's end.
TEST(StoredOrder, RejectsAChosenEntryThatIsNotWhereTheIndexSays) {
    const std::pair<const char*, std::function<void(IndexEntry&)>> forgeries[] = {
        {"block", [](auto& entry) { entry.block = 1; }},
        {"offset", [](auto& entry) { entry.offset += 1; }},
        {"span too short", [](auto& entry) { entry.span = 0; }},
        {"span too long", [](auto& entry) { entry.span = 2; }},
        {"span past the end", [](auto& entry) { entry.span = 1000; }},
    };
    for (const auto& [fault, forge] : forgeries) {
        ArchiveBuilder builder;
        builder.forgeIndex = [&forge = forge](auto, IndexEntry& entry) { forge(entry); };
        builder.announce().begin("x").data("ab").endBlock().data("cd").end({.digest = sha256("abcd")}, 4).endBlock();
        Reading reading(builder.data("").finish());
        EXPECT_EQ(std::ranges::count(reading.chosen({"x"}), "x=abcd"), 0) << fault;
        EXPECT_NE(reading.faults, "") << fault;
    }
}

TEST(StoredOrder, RejectsAReferenceToAnEntryThatIsNotChosenAndNotASource) {
    const std::pair<const char*, void (*)(ArchiveBuilder&)> forgeries[] = {
        {"later", [](auto& b) { b.reference("x", 1, false, 1).file("y", "a"); }},
        {"missing", [](auto& b) { b.reference("x", 5, false, 1); }},
        {"itself", [](auto& b) { b.reference("x", 0, false, 1); }},
        {"link", [](auto& b) { b.file("y", "a", link).reference("x", 0, false, 1); }},
        {"reference", [](auto& b) { b.file("z", "a").reference("y", 0, false, 1).reference("x", 1, false, 1); }},
        {"incomplete",
         [](auto& b) {
             b.begin("y")
                 .record(RecordType::hole, {4})
                 .end({.totals = SparseTotals{4, 1}, .unreadable = {{{0, 4}}}}, 4)
                 .reference("x", 0, false, 4);
         }},
    };
    for (const auto& [fault, build] : forgeries) {
        ArchiveBuilder builder;
        build(builder);
        Reading reading(builder.finish());
        const Seen seen = reading.chosen({"x"});
        EXPECT_TRUE(seen.empty() || seen == Seen{"x="} || seen == Seen{"x!"}) << fault << ' ' << seen[0];
    }
}

// Blocks 0 to `count` - 1 have an entry each with "0" to "9" as content; after them, each entry is referred to in turn.
ByteVector scattered(std::size_t count, std::size_t references) {
    ArchiveBuilder builder;
    for (std::size_t i = 0; i < count; ++i) builder.file("c" + std::to_string(i), "text").endBlock();
    for (std::size_t i = 0; i < references; ++i) {
        builder.reference("r" + std::to_string(i), i % count, false, 4);
        if (i % 1000 == 999) builder.endIndexPart();
    }
    return builder.finish();
}

// Of the 32,000 references, none is delivered with its content in memory: work that is done again for each would read
// the archive thousands of times.
TEST(StoredOrder, OpensEachBlockOnceForAllReferences) {
    constexpr std::size_t references = 32000;
    Reading reading(scattered(40, references));
    const auto choice = [](auto, std::string_view path) { return path[0] == 'r'; };
    Seen seen = reading.chosenBy(choice);
    EXPECT_EQ(std::ranges::count_if(seen, [](const auto& entry) { return entry.ends_with("=text"); }), references);
    EXPECT_LT(reading.readings(), 10);
}

TEST(StoredOrder, LimitsTheBlocksThatReferencesOpenAgain) {
    for (const bool whole : {true, false}) {
        Reading reading(scattered(40, 32000));
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
        builder.begin(name(number), folder).end({}, 0);
        if (number % 1000 == 999) builder.endIndexPart();
    }
    Reading reading(builder.finish());
    EXPECT_EQ(reading.salvaged().size(), count / 2);
    for (const std::size_t lost : {0U, 2U, 63998U})
        EXPECT_NE(reading.faults.find(name(lost) + ": lost; "), std::string::npos) << lost;
    EXPECT_EQ(reading.faults.find(name(1) + ": lost; "), std::string::npos);
    EXPECT_LT(reading.readings(), 10);
}

TEST(StoredOrder, CountsLostEntriesWithoutAnIndex) {
    const Shuffled archive;
    auto bytes = archive.bytes;
    bytes[archive.builder.positions[1] + 40] ^= 1;
    bytes.resize(bytes.size() - 1);
    Reading reading(bytes);
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
    Reading reading(bytes);
    EXPECT_EQ(reading.salvaged(), Seen{"x=a"});
    EXPECT_LT(reading.readings(), 20);
}

#ifndef __SANITIZE_ADDRESS__  // it has an allocator of its own
// 90 MB of paths, more than all memory that may be used.
TEST(StoredOrder, KeepsNoPathOfAnEntryInMemory) {
    constexpr std::size_t count = 24000, maxKilobytes = 81920 + 64 * count / 1024;
    const std::string path(3800, 'p');
    auto file = [&] {
        ArchiveBuilder builder;
        for (std::size_t i = 0; i < count; ++i) {
            builder.number((i * 7919 + 1) % count).file(path + std::to_string(i), "x");
        }
        for (std::size_t i = 0; i < count; i += 8000) builder.endIndexPart(8000);
        return archiveFile(builder.finish());
    }();
    const auto reader = std::move(*ArchiveReader::open(std::move(file), recipient()));
    const int output = ::dup(STDOUT_FILENO), null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::size_t listed = 0;
    const auto countOne = [&](auto, const auto&) { return ++listed > 0; };
    CheckSink check("archive");
    JsonSink json;
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
