// docs/qvx-format.md shows an archive byte for byte.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "qvx/crypto/private_key.h"
#include "unit/archive_builder.h"
#include "unit/clock_tick.h"
#include "unit/hex.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;

namespace {

// The lines of the block of text that follows `heading` in docs/qvx-format.md.
std::string blockAfter(const std::string& heading) {
    const auto page = contentOf(TEST_DATA "/../../docs/qvx-format.md");
    const auto at = page.find("\n    ", page.find(heading));
    return std::regex_replace(page.substr(at, page.find("\n\n", at) - at), std::regex("\n    "), "\n");
}

// A listing: in every line an offset, bytes, and perhaps a remark.
ByteVector listing(const std::string& heading) {
    ByteVector bytes;
    std::istringstream block(blockAfter(heading));
    for (std::string line; std::getline(block, line);)
        for (std::size_t at = 6; at < line.size() && std::isxdigit(line[at]); at += 3)
            bytes.push_back(fromHex(line.substr(at, 2)).at(0));
    return bytes;
}

KeyHandle keyAfter(const std::string& heading) { return std::move(*parsePrivateKey(blockAfter(heading))); }

// What the writer draws at random.
ArchiveSecrets secretsOfThePage() {
    ArchiveSecrets secrets;
    std::ranges::copy(listing("The salt:"), secrets.salt.begin());
    std::ranges::copy(listing("The content key:"), secrets.contentKey.bytes.begin());
    secrets.ephemeral.push_back(keyAfter("The sender's ephemeral key"));
    return secrets;
}

// Writes the files of the page's example into an archive. For a process of its own, which gets its own /mnt.
ByteVector writeExample() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("example", "/mnt", "tmpfs", 0, "mode=755") != 0)
        return {};
    std::ofstream("/mnt/hello") << "hello, world\n";
    std::ofstream("/mnt/sparse").seekp(8192) << "end";
    fs::permissions("/mnt/hello", fs::perms(0644));
    fs::permissions("/mnt/sparse", fs::perms(0600));
    fs::create_hard_link("/mnt/hello", "/mnt/again");
    fs::create_symlink("hello", "/mnt/link");
    waitForTick();
    const struct timespec time { 1767323045, 500000000 }, times[] = {time, time};
    const Seen paths{"/mnt", "/mnt/hello", "/mnt/again", "/mnt/link", "/mnt/sparse"};
    for (const auto& path : paths) ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    const auto secrets = secretsOfThePage();
    return writeArchive(guardedList(paths), *parseFieldKeys("UID,GID,MOD,MTM,DAT,SH2,SLC,CLC,HLC"),
                        keyAfter("The recipient's key").get(), &secrets);
}

TEST(FormatPage, ShowsAnArchiveAsItIsWrittenAndRead) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for a mount namespace";
    auto file = listing("The file, 1109 bytes");
    EXPECT_EXIT(::_exit(writeExample() == file ? 0 : 1), testing::ExitedWithCode(0), "");

    const auto key = keyAfter("The recipient's key");
    const auto header = decodeFileHeader(file);
    const auto unsealed = unsealHeader(*header, Bytes(file).first(headerSize(1)), key.get());
    const auto& keys = unsealed->keys;
    ByteVector derived(keys.block.key.bytes.begin(), keys.block.key.bytes.end());
    derived.insert(derived.end(), keys.block.baseNonce.begin(), keys.block.baseNonce.end());
    derived.insert(derived.end(), keys.header.bytes.begin(), keys.header.bytes.end());
    EXPECT_EQ(derived, listing("The derived keys:"));
    std::size_t at = headerSize(1);
    for (const char* heading : {"The plain bytes of block 0", "Of block 1", "Of block 2"}) {
        const auto block = decodeBlockHeader(Bytes(file).subspan(at));
        const auto sealed = MutableBytes(file).subspan(at + blockHeaderSize);
        ByteVector plain, shown = listing(heading);
        ASSERT_EQ(BlockDecoder(keys.block).decode(*block, sealed, {}, plain), BlockFault::none) << heading;
        shown.resize(plain.size());
        EXPECT_TRUE(shown == plain) << heading;
        at += blockHeaderSize + block->sealedLength;
    }
}

}  // namespace
