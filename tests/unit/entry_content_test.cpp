// Contents of entries, read at any place through a small cache of blocks.
#include "qvx/read/entry_content.h"

#include <random>
#include <thread>

#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

// The first entry has the number 0, and so on.
class Contents {
public:
    explicit Contents(const ByteVector& bytes) {
        auto file = archiveFile(bytes);
        file_ = file.get();
        reader_ = std::move(*ArchiveReader::open(std::move(file), recipient()));
        const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
            locations_.push_back(locationOf(entry));
            entries_.push_back({number, entry.type, entry.path, entry.size});
            return true;
        };
        EXPECT_TRUE(reader_->list(visit));
        blocks_ = reader_->cacheBlocks(0);
        contents_.emplace(*blocks_, [this](std::uint64_t number) {
            return number < locations_.size() ? std::optional(locations_[number]) : std::nullopt;
        });
    }

    // "!TEXT" for an error.
    std::string read(std::size_t number, std::uint64_t position = 0, std::size_t length = 100) {
        std::string bytes(length, '?');
        const MutableBytes to(reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size());
        const auto count = contents_->get(entries_.at(number))->read(position, to);
        return count ? bytes.substr(0, *count) : '!' + count.error().text;
    }
    [[nodiscard]] std::uint64_t bytesRead() const { return file_->bytesRead(); }
    std::vector<IndexedEntry>& entries() { return entries_; }

private:
    const ArchiveFile* file_ = nullptr;
    std::unique_ptr<ArchiveReader> reader_;
    std::vector<EntryLocation> locations_;
    std::vector<IndexedEntry> entries_;
    std::unique_ptr<BlockCache> blocks_;
    std::optional<EntryContents> contents_;
};

ByteVector hole(std::uint64_t length) {
    ByteVector bytes;
    WireWriter(bytes).varint(length);
    return bytes;
}

// In four blocks, the last one of padding and the end only.
ArchiveBuilder& addSplit(ArchiveBuilder& builder) {
    builder.begin("split").data("first").endBlock().data("second").record(RecordType::hole, hole(5)).endBlock();
    return builder.data("third").endBlock().end({.totals = SparseTotals{21, 1}}, 21);
}
const std::string split("firstsecond\0\0\0\0\0third", 21);

// A file in `count` blocks. Each has its number, a long text and bytes that do not compress, so that it costs as much
// as any other to read.
constexpr std::size_t textLength = blockSize / 2, noiseLength = 32768;
constexpr std::uint64_t longStep = 4 + textLength + noiseLength;
ArchiveBuilder& addLong(ArchiveBuilder& builder, std::uint64_t count) {
    builder.begin("long");
    std::mt19937 random;
    std::string noise(noiseLength, '-');
    for (std::uint64_t number = 0; number < count; ++number) {
        for (char& c : noise) c = static_cast<char>(random());
        builder.data(std::to_string(1000 + number)).data(std::string(textLength, 'x')).data(noise).endBlock();
    }
    return builder.end({}, count * longStep);
}

TEST(EntryContent, ReadsEveryRange) {
    ArchiveBuilder builder;
    builder.file("before", "b");
    const auto bytes = addSplit(builder).file("after", "a").file("link", "target", EntryType::link).finish();
    for (std::size_t position = 0; position <= split.size(); ++position) {
        Contents contents(bytes);
        for (std::size_t length = 0; length <= split.size() + 1; ++length)
            EXPECT_EQ(contents.read(1, position, length), split.substr(position, length)) << position << '+' << length;
        EXPECT_EQ(contents.read(1), split);
    }
    Contents contents(bytes);
    EXPECT_EQ(contents.read(1, ~std::uint64_t{0}), "");
    EXPECT_EQ(contents.read(0), "b");
    EXPECT_EQ(contents.read(2), "a");
    EXPECT_EQ(contents.read(3), "target");
}

TEST(EntryContent, OpensOnlyTheNeededBlocks) {
    ArchiveBuilder builder(leaderForEachKind(1000));
    Contents contents(addLong(builder, 40).finish());
    const auto cost = [&](std::uint64_t position, const char* expected) {
        const std::uint64_t before = contents.bytesRead();
        EXPECT_EQ(contents.read(0, position, 4), expected);
        return contents.bytesRead() - before;
    };
    const std::uint64_t last = cost(39 * longStep, "1039"), measured = cost(25 * longStep, "1025");
    const std::uint64_t again = cost(38 * longStep, "1038");
    EXPECT_LT(last, measured / 3) << "the end was looked for from the beginning";
    EXPECT_LT(again, measured / 10) << "the file was measured again";
    EXPECT_GT(again, 0U) << "the cache has more blocks than its limit";
    EXPECT_EQ(cost(38 * longStep + 4, "xxxx"), 0U) << "a block in the cache was read again";
}

TEST(EntryContent, ThreadsThatReadInOrderAndAtRandomSeeTheSame) {
    ArchiveBuilder builder;
    Contents contents(addLong(builder, 60).finish());
    const auto expectBlock = [&](std::uint64_t number) {
        EXPECT_EQ(contents.read(0, number * longStep, 5), std::to_string(1000 + number) + 'x');
    };
    std::vector<std::jthread> threads;
    for (const std::uint64_t step : {1U, 1U, 7U, 59U})
        threads.emplace_back([=] {
            for (std::uint64_t i = 0; i < 60; ++i) expectBlock(i * step % 60);
        });
}

TEST(EntryContent, FollowsOneReferenceToAnEarlierWholeFile) {
    ArchiveBuilder builder;
    builder.reference("to later", 1, 7).file("file", "content").reference("good", 1, 7).reference("chain", 2, 7);
    builder.reference("other size", 1, 6).begin("part").data("p").end({.unreadable = std::vector<Extent>()}, 1);
    builder.reference("to part", 5, 1).reference("to link", 8, 1).file("link", "x", EntryType::link);
    builder.reference("to link", 8, 1).reference("to nothing", 99, 1).reference("itself", 11, 1);
    Contents contents(builder.finish());
    const std::string missing = "!the entry with its content is missing or a different one";
    const std::string mismatch = "!the index does not match the entry", end = "!the end of the entry is malformed";
    const std::string expected[] = {missing, "content", "content", mismatch, mismatch, "p",
                                    end,     missing,   "x",       mismatch, missing,  missing};
    for (std::size_t number = 0; number < std::size(expected); ++number)
        EXPECT_EQ(contents.read(number), expected[number]) << contents.entries()[number].path;
}

TEST(EntryContent, RefusesAnEntryThatIsNotWhatTheIndexSays) {
    const std::pair<const char*, std::function<void(IndexedEntry&)>> lies[] = {
        {"too short", [](auto& entry) { --entry.size; }},
        {"too long", [](auto& entry) { ++entry.size; }},
        {"other path", [](auto& entry) { entry.path += 'x'; }},
        {"other type", [](auto& entry) { entry.type = EntryType::link; }},
        {"other number", [](auto& entry) { --entry.number; }},
    };
    for (const auto& [name, lie] : lies) {
        ArchiveBuilder builder;
        builder.file("a", "1");
        Contents contents(addSplit(builder).finish());
        lie(contents.entries()[1]);
        EXPECT_EQ(contents.read(1), "!the index does not match the entry") << name;
    }
}

TEST(ArchiveReader, ListsTheOtherPartsOfADamagedIndex) {
    ArchiveBuilder builder;
    for (int number = 0; number < 128; ++number) builder.file("lost", "x");
    auto bytes = builder.endBlock().endIndexPart().endBlock().file("found", "x").finish();
    bytes[builder.positions[2] - 1] ^= 1;
    const auto reader = openArchive(bytes);
    std::string seen;
    const auto visit = [&](auto number, const auto& entry) {
        seen += std::to_string(number) + entry.path;
        return true;
    };
    EXPECT_TRUE((*reader)->listIntact(visit, [&](const ReadFault& fault) { seen += fault.text + "; "; }));
    EXPECT_EQ(seen, "the block is changed, or not of this archive; 128found");
}

TEST(EntryContent, RefusesMalformedRecords) {
    const auto expect = [](const char* text, const std::function<void(ArchiveBuilder&)>& build) {
        ArchiveBuilder builder;
        build(builder.begin("x"));
        EXPECT_EQ(Contents(builder.finish()).read(0), text);
    };
    expect("!the content is malformed", [](auto& builder) { builder.data("").end({}, 5); });
    expect("!the content is malformed", [](auto& builder) { builder.record(RecordType::hole, {}).end({}, 5); });
    expect("!the content is malformed", [](auto& builder) { builder.record(RecordType(0x40), {}).end({}, 5); });
    expect("!the content is too long", [](auto& builder) {
        for (int i = 0; i < 3; ++i) builder.record(RecordType::hole, hole(maxContentSize));
        builder.end({}, 5);
    });
    expect("!the end of the entry is malformed", [](auto& builder) {
        builder.data("12345").end({.totals = SparseTotals{6, 0}}, 5);
    });
}

TEST(EntryContent, DamageLosesOnlyTheContentOfItsBlock) {
    ArchiveBuilder builder(leaderForEachKind(1000));
    auto bytes = addLong(builder, 9).file("other", "o").finish();
    bytes[builder.positions[3] - 1] ^= 1;
    const std::string damaged = "!block 2: the block is changed, or not of this archive";
    for (const std::uint64_t first : {0U, 1U, 3U, 8U}) {
        Contents contents(bytes);
        for (const std::uint64_t number : {first, 1UL, 3UL, 7UL, 8UL})
            EXPECT_EQ(contents.read(0, number * longStep, 4), std::to_string(1000 + number)) << "first " << first;
        EXPECT_EQ(contents.read(0, 2 * longStep - 2, 4), damaged);
        EXPECT_EQ(contents.read(0, 2 * longStep, 4), damaged);
        EXPECT_EQ(contents.read(0, 3 * longStep - 4, 8), damaged);
        EXPECT_EQ(contents.read(0, 2 * longStep - noiseLength - 4, 4), "xxxx");
        EXPECT_EQ(contents.read(1), "o");
    }
}

// The END record begins in one block and ends in the next, with the size.
TEST(EntryContent, ReadsUpToASplitEnd) {
    for (const bool right : {true, false}) {
        ArchiveBuilder builder;
        const auto splitEnd = static_cast<RecordType>(0x84);
        const std::string content(blockSize - 18, 'x');  // one byte of END is left
        builder.begin("x").data(content).record(splitEnd, {0x02});
        builder.forge = [](RecordType type, ByteVector& payload) {
            if (type == RecordType::end) payload.erase(payload.begin());
        };
        const std::uint64_t stated = content.size() + (right ? 0 : 1);
        Contents contents(builder.end({.totals = SparseTotals{stated, 0}}, content.size()).finish());
        EXPECT_EQ(contents.read(0, 3, 3), "xxx");
        EXPECT_EQ(contents.read(0, content.size() - 3), right ? "xxx" : "!the end of the entry is malformed");
    }
}

}  // namespace
