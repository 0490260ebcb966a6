// The header of an archive, its recipients, and its copy in the footer.
#include "qvx/read/header_copies.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

Point pointOf(const KeyHandle& key) { return *publicPointOf(key.get()); }

// An archive for two recipients: recipient() and another one.
struct SharedArchive {
    // Footer and header with the same change.
    [[nodiscard]] ByteVector with(const std::function<void(FileHeader&)>& change) const {
        auto decoded = *decodeFileHeader(header);
        change(decoded);
        return ArchiveBuilder::archiveOf(encodeFileHeader(decoded), blocks);
    }

    ArchiveBuilder builder{leaderForEachKind(2), {recipients()[0], pointOf(generatePrivateKey())}};
    const ByteVector &header = builder.fileHeader, &blocks = builder.blocks;
    const ByteVector bytes = builder.file("one", "first content").endBlock().file("two", "second content").finish();
    const Seen all{"one=first content", "two=second content"};
};

std::string fault(const ByteVector& bytes) { return Reading(bytes).faults; }

Seen salvaged(const ByteVector& bytes) { return Reading(bytes, Reading::Opening::salvage).salvaged(); }

TEST(FileHeader, RejectsEveryFieldThatThePageDoesNotAllow) {
    const SharedArchive archive;
    const std::tuple<const char*, std::size_t, std::uint8_t> faults[] = {
        {"version", 8, 2},   {"profile", 10, 2},      {"compression", 12, 2},    {"stream flags", 16, 1},
        {"block", 24, 1},    {"no recipient", 28, 0}, {"17 recipients", 28, 17}, {"256 more recipients", 29, 1},
        {"reserved", 30, 1}, {"reserved", 31, 1},
    };
    for (const auto& [name, at, value] : faults) {
        auto changed = archive.bytes;
        for (const std::size_t copy : {std::size_t{0}, changed.size() - footerEndSize - archive.header.size()})
            changed[copy + at] = value;
        EXPECT_TRUE(fault(changed).starts_with("the header is damaged, or of a version that")) << name;
    }
    const auto doubled = archive.with([](FileHeader& header) { header.recipients[1] = header.recipients[0]; });
    EXPECT_TRUE(fault(doubled).starts_with("the header is damaged, or of")) << fault(doubled);
    EXPECT_EQ(fault({}), "not a qvx archive; ");
    EXPECT_EQ(fault({archive.bytes.begin(), archive.bytes.begin() + 100}), "the archive ends within its header; ");
}

TEST(HeaderTag, RejectsOtherRecipients) {
    const SharedArchive archive;
    const KeyHandle stranger = generatePrivateKey();
    const std::array<Point, 1> toStranger{pointOf(stranger)};
    const auto forged = *decodeFileHeader(*sealHeader(archive.builder.secrets, toStranger));
    const std::pair<const char*, std::function<void(FileHeader&)>> changes[] = {
        {"dropped", [](FileHeader& header) { header.recipients.pop_back(); }},
        {"added", [&](FileHeader& header) { header.recipients.push_back(forged.recipients[0]); }},
        {"exchanged", [&](FileHeader& header) { header.recipients[1] = forged.recipients[0]; }},
        {"swapped", [](FileHeader& header) { std::swap(header.recipients[0], header.recipients[1]); }},
        {"other salt", [](FileHeader& header) { header.salt[0] ^= 1; }},
        {"other tag", [](FileHeader& header) { header.tag[31] ^= 1; }},
    };
    ASSERT_EQ(fault(archive.with([](FileHeader&) {})), "");
    for (const auto& [name, change] : changes) {
        const auto text = fault(archive.with(change));
        EXPECT_TRUE(text.ends_with("its tag is wrong; ") || text.starts_with("the content key"))
            << name << ": " << text;
    }
}

TEST(HeaderCopies, RefuseEveryChangedByteAndStillSaveAllFiles) {
    const SharedArchive archive;
    const std::size_t footer = archive.bytes.size() - footerEndSize - archive.header.size();
    for (std::size_t at = 0; at < archive.bytes.size(); ++at) {
        if (at == archive.header.size()) at = footer;
        auto changed = archive.bytes;
        changed[at] ^= 0x01;
        const char* expected = at < footer                                  ? "the header is damaged; its copy"
                               : at < footer + archive.header.size()        ? "the copy of the header in the footer is"
                               : at < archive.bytes.size() - endMark.size() ? "the "
                                                                            : "the end of the footer is damaged";
        const auto text = fault(changed);
        EXPECT_TRUE(text.starts_with(expected)) << at << ": " << text;
        EXPECT_NE(text.find("--salvage"), std::string::npos) << at << ": " << text;
        EXPECT_EQ(salvaged(changed), archive.all) << at;
    }
}

TEST(HeaderCopies, AreFoundAfterDamageToBeginningOrEnd) {
    const SharedArchive archive;
    const SharedArchive another;
    const ByteVector& whole = archive.bytes;
    const ByteVector footer = encodeFooter(archive.header), junk(100, 'j');
    const auto body = joined(archive.header, archive.blocks);
    const char* const cut = "the archive is cut, or bytes follow it";
    const char* const first = "the header is damaged; its copy in the footer is intact";
    const std::tuple<const char*, ByteVector, const char*> cases[] = {
        {"header overwritten", joined(ByteVector(archive.header.size()), joined(archive.blocks, footer)), first},
        {"part of header missing", {whole.begin() + 50, whole.end()}, first},
        {"footer cut", {whole.begin(), whole.end() - 1}, cut},
        {"footer overwritten", joined(body, ByteVector(footer.size())), cut},
        {"bytes after it", joined(whole, junk), cut},
        {"footer of another archive", joined(body, encodeFooter(another.header)), "the header and its copy in"},
        {"bytes before it, no footer", joined(junk, body), "not a qvx archive"},
        {"no header, bytes after it", joined(joined(archive.blocks, footer), junk), "not a qvx archive"},
    };
    for (const auto& [name, bytes, expected] : cases) {
        Reading reading(bytes, Reading::Opening::salvage);
        EXPECT_TRUE(fault(bytes).starts_with(expected)) << name << ": " << fault(bytes);
        EXPECT_EQ(reading.salvaged(), archive.all) << name;
        EXPECT_NE(reading.faults, "") << name;
    }
    EXPECT_TRUE(salvaged(joined(archive.blocks, junk)).empty()) << "no header at all";
}

// Each one costs a key agreement.
TEST(HeaderCopies, SearchEndsAfterSixteenFalseHeaders) {
    const SharedArchive archive;
    auto planted = *decodeFileHeader(archive.header);
    planted.tag[0] ^= 1;
    for (const std::size_t count : {15U, 16U}) {
        ByteVector bytes(1, 'j');
        for (std::size_t i = 0; i < count; ++i) bytes = joined(bytes, encodeFileHeader(planted));
        EXPECT_EQ(salvaged(joined(bytes, joined(archive.header, archive.blocks))).empty(), count == 16) << count;
    }
}

TEST(HeaderSeal, RefusesNoRecipientsTooManyDoubleOnesAndPointsBesideTheCurve) {
    const auto secrets = *randomSecrets();
    std::vector<Point> points(maxRecipients + 1);
    std::ranges::generate(points, [] { return pointOf(generatePrivateKey()); });
    const std::span<const Point> all(points);
    EXPECT_FALSE(sealHeader(secrets, {}));
    EXPECT_FALSE(sealHeader(secrets, all));
    EXPECT_TRUE(sealHeader(secrets, all.first(maxRecipients)));
    EXPECT_FALSE(sealHeader(secrets, std::array{points[0], points[1], points[0]}));
    EXPECT_FALSE(sealHeader(secrets, std::array{points[0], Point{0x04}}));
}

}  // namespace
