// The worked example of docs/qvx-format.md: the library writes its bytes, and reads them as the page has it.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>

#include "platform/archive/encryption_context.h"
#include "platform/archive/private_key.h"
#include "unit/archive_builder.h"
#include "unit/hex.h"
#include "unit/temporary_folder.h"

using namespace tarnwick;
using namespace tarnwick::test;
namespace fs = std::filesystem;

namespace {

// The lines of the block of text that comes behind `heading` on the page.
std::vector<std::string> blockBehind(const std::string& heading) {
    std::ifstream page(TEST_DATA "/../../docs/qvx-format.md");
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(page, line) && line.find(heading) == line.npos) continue;
    while (std::getline(page, line) && (lines.empty() || !line.empty()))
        if (line.starts_with("    ")) lines.push_back(line.substr(4) + '\n');
    return lines;
}

// A listing: in every line an offset, bytes, and perhaps a remark.
ByteVector listing(const std::string& heading) {
    ByteVector bytes;
    for (const auto& line : blockBehind(heading))
        for (std::size_t at = 6; std::isxdigit(line[at]); at += 3) bytes.push_back(fromHex(line.substr(at, 2)).at(0));
    return bytes;
}

KeyHandle key(const std::string& heading) {
    std::string pem;
    for (const auto& line : blockBehind(heading)) pem += line;
    return parsePrivateKey(pem, nullptr).key;
}

// Files as the example has them. A file that was changed in the tick of the clock in which writing begins would not be
// stored by reference.
void makeFiles() {
    std::ofstream("/mnt/hello") << "hello, world\n";
    std::ofstream("/mnt/sparse").seekp(8192) << "end";
    fs::permissions("/mnt/hello", fs::perms(0644));
    fs::permissions("/mnt/sparse", fs::perms(0600));
    fs::create_hard_link("/mnt/hello", "/mnt/again");
    fs::create_symlink("hello", "/mnt/link");
    const auto tick = [](struct timespec now = {}) {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return now.tv_nsec;
    };
    for (const auto begin = tick(); tick() == begin;) continue;
}

// For a process of its own, whose /mnt is nobody else's.
bool writeExample(const fs::path& archive) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("example", "/mnt", "tmpfs", 0, "mode=755") != 0)
        return false;
    makeFiles();
    auto* list = newPathList();
    for (const char* path : {"/mnt", "/mnt/hello", "/mnt/again", "/mnt/link", "/mnt/sparse"}) {
        const struct timespec time { 1767323045, 500000000 }, times[] = {time, time};
        ::utimensat(AT_FDCWD, path, times, AT_SYMLINK_NOFOLLOW);
        mergePathLists(list, pathListForPath("/", path));
    }
    const EncryptionContext context{publicPointOf(key("The recipient's key").get()), true, true,
                                    key("The sender's ephemeral key")};
    auto* file = openFileByteStream(archive.c_str(), O_WRONLY | O_CREAT, 0644);
    auto* sealed = openEncryptionOutputStream(file, &context, streamFlags, 4);
    auto* encoder = openArchiveEncoderStream(sealed, nullptr, nullptr, 0, 4);
    const auto* fields = fieldKeySetFromString("UID,GID,MOD,MTM,DAT,SH2,SLC,CLC,HLC");
    return writePathList(encoder, list, fields, "/", nullptr, nullptr, 0, 4) == 0;
}

TEST(FormatPage, ShowsAnArchiveAsItIsWritten) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for a mount namespace";
    const TemporaryFolder folder;
    const pid_t child = fork();
    if (child == 0) ::_exit(writeExample(folder.path / "example.qvx") ? 0 : 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    std::ifstream stream(folder.path / "example.qvx", std::ios::binary);
    EXPECT_EQ(ByteVector(std::istreambuf_iterator<char>(stream), {}), listing("The file, 715 bytes"));
}

TEST(FormatPage, ShowsAnArchiveAsItIsRead) {
    auto file = listing("The file, 715 bytes");
    const auto recipient = key("The recipient's key");
    const Bytes header = Bytes(file).first(plainHeaderSize);
    const auto keys =
        hpkeReceive(Aead::aes256Gcm, recipient.get(), header.subspan(boundHeaderSize), header.first(boundHeaderSize));
    ByteVector schedule(keys->key.begin(), keys->key.end());
    schedule.insert(schedule.end(), keys->baseNonce.begin(), keys->baseNonce.end());
    EXPECT_EQ(schedule, listing("HPKE's key schedule"));
    std::size_t at = plainHeaderSize;
    for (const char* heading : {"The plain bytes of block 0", "Of block 1", "Of block 2"}) {
        const auto block = decodeBlockHeader(Bytes(file).subspan(at));
        const auto sealed = MutableBytes(file).subspan(at + blockHeaderSize);
        ByteVector plain;
        ASSERT_EQ(BlockDecoder(*keys).decode(*block, sealed, {}, plain), BlockFault::none) << heading;
        auto shown = listing(heading);
        shown.resize(plain.size());
        EXPECT_TRUE(shown == plain) << heading;
        at += blockHeaderSize + block->sealedLength;
    }
}

}  // namespace
