#include "platform/archive/entry_codec.h"

#include <gtest/gtest.h>

#include <limits>

#include "unit/hex.h"

using namespace tarnwick::qvx;
using tarnwick::test::fromHex;

namespace {

using Buffer = std::vector<std::uint8_t>;

constexpr auto least = std::numeric_limits<std::int64_t>::min();
constexpr auto most = std::numeric_limits<std::int64_t>::max();

EntryHead fullHead() {
    return {7,       EntryType::file,     "var/log/caf\xe9",
            1000,    0xffffffff,          std::uint16_t{04755},
            0x80000, 1700000000123456789, least,
            most};
}

EntryTail fullTail() {
    EntryTail tail;
    tail.digest = Digest{1, 2, 3};
    tail.sum = SparseSum{std::uint64_t{1} << 63, 2};
    tail.contentOf = 3;
    tail.linkOf = 300;
    tail.attributes = {{"user.a", ""}, {"user.b", std::string("\0\x01", 2)}};
    tail.accessLists = AccessLists{"user::rw-", ""};
    return tail;
}

template <typename Value>
Buffer encoded(void (*encode)(const Value&, Buffer&), const Value& value) {
    Buffer bytes;
    encode(value, bytes);
    return bytes;
}

// Whatever a decoder takes must be what the encoder makes of it: so nothing has two forms, and no damage is passed
// over.
template <typename Value>
void expectOneForm(const Buffer& good, void (*encode)(const Value&, Buffer&), std::optional<Value> (*decode)(Bytes)) {
    const auto check = [&](const Buffer& bytes) {
        if (const auto value = decode(bytes)) {
            EXPECT_EQ(encoded(encode, *value), bytes);
        }
    };
    ASSERT_TRUE(decode(good));
    check(good);
    for (std::size_t i = 0; i < good.size(); ++i) {
        EXPECT_FALSE(decode(Bytes(good).first(i))) << "cut at " << i;
        for (const unsigned value : {0x00U, 0x01U, 0x7fU, 0x80U, 0xffU, good[i] ^ 0x80U, good[i] + 1U, good[i] - 1U}) {
            Buffer damaged = good;
            damaged[i] = static_cast<std::uint8_t>(value);
            check(damaged);
        }
    }
    Buffer longer = good;
    longer.push_back(0);
    EXPECT_FALSE(decode(longer));
}

TEST(EntryCodec, TakesOnlyTheOneFormOfEveryPayload) {
    expectOneForm(encoded(encodeEntryHead, fullHead()), encodeEntryHead, decodeEntryHead);
    expectOneForm(encoded(encodeEntryHead, EntryHead{}), encodeEntryHead, decodeEntryHead);
    expectOneForm(encoded(encodeEntryTail, fullTail()), encodeEntryTail, decodeEntryTail);
    expectOneForm(encoded(encodeEntryTail, EntryTail{}), encodeEntryTail, decodeEntryTail);
    expectOneForm(encoded(encodeRoot, ArchiveRoot{5, {{0, 1, 2}, {3, 300, 4}}, {17, 1048592}}), encodeRoot, decodeRoot);
}

TEST(EntryCodec, GivesBackTheFieldsOfAnEntry) {
    const auto head = *decodeEntryHead(encoded(encodeEntryHead, fullHead()));
    EXPECT_EQ(head.path, "var/log/caf\xe9");
    EXPECT_EQ(head.groupId, 0xffffffff);
    EXPECT_EQ(head.mode, 04755);
    EXPECT_EQ(head.modified, 1700000000123456789);
    EXPECT_EQ(head.changed, least);
    EXPECT_EQ(head.born, most);
    EXPECT_FALSE(decodeEntryHead(encoded(encodeEntryHead, EntryHead{}))->mode);

    const auto tail = *decodeEntryTail(encoded(encodeEntryTail, fullTail()));
    EXPECT_EQ(tail.sum->size, std::uint64_t{1} << 63);
    EXPECT_EQ(tail.linkOf, 300U);
    EXPECT_EQ(tail.attributes->at(1).value, std::string("\0\x01", 2));
    EXPECT_EQ(tail.accessLists->access, "user::rw-");
}

TEST(EntryCodec, RefusesPathsThatLeadElsewhere) {
    for (const std::string& path :
         {std::string(), std::string("a"), std::string("a/..b"), std::string(".../c"), std::string(4095, 'x')})
        EXPECT_TRUE(isEntryPath(path)) << path;
    for (const std::string& path :
         {std::string("/a"), std::string("a/"), std::string("a//b"), std::string(".."), std::string("a/../b"),
          std::string("./a"), std::string("a\0b", 3), std::string(4096, 'x')}) {
        EntryHead head;
        head.path = path;
        EXPECT_FALSE(decodeEntryHead(encoded(encodeEntryHead, head))) << path;
    }
}

TEST(EntryCodec, RefusesNumbersOutOfRange) {
    EXPECT_FALSE(decodeHole(fromHex("00")));
    EXPECT_FALSE(decodeHole(fromHex("8000"))) << "a longer form than needed";
    EXPECT_FALSE(decodeHole(fromHex("ffffffffffffffffff02"))) << "66 bits";
    EXPECT_EQ(decodeHole(fromHex("ffffffffffffffffff01")), std::numeric_limits<std::uint64_t>::max());
    EXPECT_FALSE(decodeRoot(fromHex("00ffffffffffffffff7f"))) << "more parts than bytes";
    EXPECT_FALSE(decodeEntryTail(fromHex("10ffffff7f"))) << "more attributes than bytes";
    EXPECT_FALSE(decodeTrailer(Buffer(31)));
}

TEST(EntryCodec, IndexPartsGiveBackTheirEntries) {
    IndexPartEncoder encoder;
    std::vector<IndexEntry> entries{{0, 0, EntryType::directory, "", 0755, 0, 0, 0, -5},
                                    {0, 90, EntryType::file, "var/log/a", 0600, 1, 2, 1234567, 1700000000},
                                    {3, 1048570, EntryType::link, "var/log/b", 07777, 3, 4, 9, 0}};
    for (const int round : {0, 1}) {
        for (const auto& entry : entries) encoder.add(entry);
        Buffer payload;
        encoder.finish(payload);
        IndexPartDecoder part(payload);
        EXPECT_EQ(part.first(), round == 0 ? 0U : entries.size());
        ASSERT_EQ(part.count(), entries.size());
        for (const auto& expected : entries) {
            const auto* found = part.next();
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(
                std::tie(found->block, found->offset, found->type, found->path, found->mode, found->size),
                std::tie(expected.block, expected.offset, expected.type, expected.path, expected.mode, expected.size));
            EXPECT_EQ(found->modifiedSeconds, expected.modifiedSeconds);
        }
        EXPECT_EQ(part.next(), nullptr);
        EXPECT_FALSE(part.damaged());
        for (std::size_t length = 0; length < payload.size(); ++length) {
            IndexPartDecoder cut(Bytes(payload).first(length));
            while (cut.next()) {
            }
            EXPECT_TRUE(cut.damaged()) << length;
        }
    }
}

TEST(RecordCursor, StopsAtWhatIsNoRecord) {
    const struct {
        const char* block;
        std::size_t records;
        bool damaged;
    } cases[] = {
        {"", 0, false},
        {"0201000061020000", 1, false},        // too few bytes left for a record
        {"020100006100000000", 1, false},      // padding of no bytes
        {"0201000061000200000000", 1, false},  // padding up to the end
        {"0201000061000100000000", 1, true},   // padding that ends before the block does
        {"02020000", 0, true},                 // longer than the block
        {"08000000", 0, true},                 // no such type
        {"8201000061", 0, true},               // only some types may go on in the next block
        {"8402000061620000", 1, false},
        {"84020000616200000000", 0, true},  // goes on although there is room for another record
    };
    for (const auto& c : cases) {
        const Buffer block = fromHex(c.block);
        RecordCursor cursor(block);
        std::size_t records = 0;
        while (cursor.next()) ++records;
        EXPECT_EQ(records, c.records) << c.block;
        EXPECT_EQ(cursor.damaged(), c.damaged) << c.block;
    }
}

}  // namespace
