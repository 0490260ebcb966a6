#include "platform/archive_library.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <random>
#include <regex>

#include "platform/encryption_context.h"
#include "qvx/crypto/private_key.h"
#include "qvx/write/path_list.h"
#include "unit/archive_builder.h"
#include "unit/hex.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;

namespace {

using StreamHandle = std::unique_ptr<ByteStream, FreeWith<closeByteStream>>;
using EncoderHandle = std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>>;
using KeySetHandle = std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>>;
using ListHandle = std::unique_ptr<PathList, FreeWith<destroyPathList>>;

StreamHandle newFile(const fs::path& path) {
    return StreamHandle(openFileByteStream(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
}

PathList listOf(const Seen& paths) {
    PathList list;
    for (const auto& path : paths) list.append(*ListHandle(pathListForPath("/", path)));
    return list;
}

// Writes an archive. Returns its bytes, or none on a failure.
ByteVector write(const PathList& list, const fs::path& archive, const EncryptionContext& context,
                 const char* fields = "UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL") {
    const KeySetHandle keys(fieldKeySetFromString(fields));
    const auto output = newFile(archive);
    const StreamHandle sealed(openEncryptionOutputStream(output.get(), &context, streamFlags, 4));
    const EncoderHandle encoder(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, 4));
    if (writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 4) != 0) return {};
    std::ifstream stream(archive, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A file that changes in the tick of the clock in which writing begins is not stored by reference.
void waitForTick() {
    const auto tick = [](struct timespec now = {}) {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return now.tv_nsec;
    };
    for (const auto begin = tick(); tick() == begin;) continue;
}

class ArchiveLibrary : public testing::Test {
protected:
    [[nodiscard]] fs::path at(const std::string& name) const { return folder_.path / name; }
    std::string file(const std::string& name, std::string_view content) const {  // its path
        std::ofstream(at(name), std::ios::binary) << content;
        return at(name);
    }

    // What a complete and careful reading of an archive of these gives, the folder's own name left out.
    Seen roundTrip(const Seen& paths, CheckingSink&& sink = {}) {
        bytes_ = write(listOf(paths), at("archive.qvx"), {publicPointOf(recipient()), true, true, nullptr});
        ReadFault fault;
        const auto reader = openArchive(bytes_, fault);
        EXPECT_TRUE(reader && reader->readAll(sink, fault)) << fault.what;
        const auto own = folder_.path.string().substr(1) + '/';
        for (auto& entry : sink.seen)
            if (entry.starts_with(own)) entry.erase(0, own.size());
        return sink.seen;
    }

    TemporaryFolder folder_;
    ByteVector bytes_;
};

TEST_F(ArchiveLibrary, KeepsTheOrderOfTheListAndStoresDuplicatesOnce) {
    std::string noise(400000, '\0');
    std::ranges::generate(noise, [dice = std::mt19937(7)]() mutable { return static_cast<char>(dice()); });
    const auto small = file("small", "s"), path = file("noise", noise);
    fs::create_hard_link(path, at("linked"));
    fs::create_symlink("nowhere", at("link"));
    std::ofstream(at("sparse")).seekp(2500000) << "x";
    waitForTick();
    std::string version;
    std::getline(std::ifstream("/proc/version"), version);  // a file that says it is empty, and is not
    EXPECT_EQ(roundTrip({small, at("link"), path, at("linked"), at("sparse"), path, "/proc/version"}),
              (Seen{"small=s", "link=nowhere", "noise=" + noise, "linked=" + noise,
                    "sparse=" + std::string(2500000, '\0') + "x", "noise=" + noise, "proc/version=" + version + "\n"}));
    EXPECT_LT(bytes_.size(), 500000U);
}

TEST_F(ArchiveLibrary, WritesAnIndexOfManyParts) {
    const auto folder = std::string(200, 'd');
    fs::create_directory(at(folder));
    const auto one = file("f", "f"), other = file(folder + "/" + std::string(200, 'g'), "g");
    Seen paths;
    for (int i = 0; i < 3000; ++i) paths.insert(paths.end(), {one, other});
    EXPECT_EQ(roundTrip(paths).size(), 6000U);
}

TEST_F(ArchiveLibrary, HashesNoTebibytesOfHoles) {
    struct Sizes : CheckingSink {
        bool hole(std::uint64_t length) override { return length <= (std::uint64_t{1} << 41); }
        bool finish(const EntryTail& tail, const ContentReader&) override {
            seen.push_back(std::to_string(tail.totals->size) + (tail.digest ? " with a digest" : ""));
            return true;
        }
    };
    fs::resize_file(file("huge", ""), std::uintmax_t{1} << 41);
    EXPECT_EQ(roundTrip({at("huge")}, Sizes()), Seen{"2199023255552"});
}

TEST_F(ArchiveLibrary, FollowsNoUserToAnotherFolderOrFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for links of another user";
    const auto linkAs = [&](const char* target, uid_t owner) {
        fs::rename(at("logs"), at("old"));
        fs::create_directory_symlink(target, at("logs"));
        ASSERT_EQ(::lchown(at("logs").c_str(), owner, owner), 0);
    };
    const struct {
        const char* title;
        std::function<void()> change;  // between the listing and the reading
        bool stored;
        bool listed;  // when it is listed again after the change
    } rows[] = {
        {"nothing", [] {}, true, true},
        {"the log is rotated", [&] { fs::rename(at("logs/log"), at("logs/log.1")), file("logs/log", "new"); }, true,
         true},
        {"the folder becomes a user's link", [&] { linkAs("secret", 1000); }, false, false},
        {"the folder becomes root's link elsewhere", [&] { linkAs("secret", 0); }, false, true},
        {"the folder becomes root's link to itself", [&] { linkAs("old", 0); }, true, true},
        {"the folder becomes a user's link to itself", [&] { linkAs("old", 1000); }, false, false},
        {"another folder gets its name",
         [&] { fs::rename(at("logs"), at("old")), fs::rename(at("secret"), at("logs")); }, false, true},
        {"the file gets the name of another",
         [&] { fs::remove(at("logs/log")), fs::create_hard_link(at("secret/log"), at("logs/log")); }, false, true},
    };
    for (const auto& row : rows) {
        for (const char* name : {"logs", "old", "secret"}) fs::remove_all(at(name));
        for (const char* name : {"logs", "secret"}) fs::create_directory(at(name));
        file("logs/log", "own");
        file("secret/log", "secret");
        const auto list = listOf({at("logs/log")});
        row.change();
        const auto written = write(list, at("archive.qvx"), {publicPointOf(recipient()), true, true, nullptr});
        EXPECT_EQ(!written.empty(), row.stored) << row.title;
        EXPECT_EQ(ListHandle(pathListForPath("/", at("logs/log").native())) != nullptr, row.listed) << row.title;
    }
}

TEST_F(ArchiveLibrary, RefusesWhatIsNoRegularFileAndArgumentsThatDoNotFit) {
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("target"), at("link"));
    for (const auto* name : {"fifo", "link", "."}) EXPECT_FALSE(newFile(at(name))) << name;
    const auto output = newFile(at("archive.qvx"));
    EncryptionContext context{publicPointOf(recipient()), true, true, nullptr};
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), &context, streamFlags, 0));
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), &context, 0, 4));
    const StreamHandle sealed(openEncryptionOutputStream(output.get(), &context, streamFlags, 4));
    (*context.recipient)[64] ^= 1;
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), &context, streamFlags, 4)) << "not on the curve";
    EXPECT_FALSE(openArchiveEncoderStream(output.get(), nullptr, nullptr, 0, 4)) << "not encrypted";
    const EncoderHandle encoder(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, 4));
    const KeySetHandle keys(fieldKeySetFromString("DAT"));
    const PathList list;
    EXPECT_EQ(writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 5), -EINVAL);
    EXPECT_EQ(writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 4), 0);
    EXPECT_EQ(writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 4), -EINVAL) << "twice";
}

// The lines of the block of text that comes behind `heading` in docs/qvx-format.md.
std::string blockBehind(const std::string& heading) {
    std::ostringstream page;
    page << std::ifstream(TEST_DATA "/../../docs/qvx-format.md").rdbuf();
    const auto at = page.str().find("\n    ", page.str().find(heading));
    return std::regex_replace(page.str().substr(at, page.str().find("\n\n", at) - at), std::regex("\n    "), "\n");
}

// A listing: in every line an offset, bytes, and perhaps a remark.
ByteVector listing(const std::string& heading) {
    ByteVector bytes;
    std::istringstream block(blockBehind(heading));
    for (std::string line; std::getline(block, line);)
        for (std::size_t at = 6; at < line.size() && std::isxdigit(line[at]); at += 3)
            bytes.push_back(fromHex(line.substr(at, 2)).at(0));
    return bytes;
}

KeyHandle keyBehind(const std::string& heading) { return parsePrivateKey(blockBehind(heading), nullptr).key; }

// The files of the page's example, in an archive. For a process of its own, whose /mnt is nobody else's.
ByteVector writeExample(const fs::path& archive) {
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
    const Seen paths{"/mnt", "/mnt/hello", "/mnt/again", "/mnt/link", "/mnt/sparse"};
    const struct timespec time { 1767323045, 500000000 }, times[] = {time, time};
    for (const auto& path : paths) ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    return write(
        listOf(paths), archive,
        {publicPointOf(keyBehind("The recipient's key").get()), true, true, keyBehind("The sender's ephemeral key")},
        "UID,GID,MOD,MTM,DAT,SH2,SLC,CLC,HLC");
}

TEST(FormatPage, ShowsAnArchiveAsItIsWrittenAndRead) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for a mount namespace";
    auto file = listing("The file, 715 bytes");
    const TemporaryFolder folder;
    const pid_t child = fork();
    if (child == 0) ::_exit(writeExample(folder.path / "example.qvx") == file ? 0 : 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);

    const auto key = keyBehind("The recipient's key");
    const Bytes header = Bytes(file).first(plainHeaderSize);
    const auto keys =
        hpkeReceive(Aead::aes256Gcm, key.get(), header.subspan(boundHeaderSize), header.first(boundHeaderSize));
    ByteVector schedule(keys->key.begin(), keys->key.end());
    schedule.insert(schedule.end(), keys->baseNonce.begin(), keys->baseNonce.end());
    EXPECT_EQ(schedule, listing("HPKE's key schedule"));
    std::size_t at = plainHeaderSize;
    for (const char* heading : {"The plain bytes of block 0", "Of block 1", "Of block 2"}) {
        const auto block = decodeBlockHeader(Bytes(file).subspan(at));
        const auto sealed = MutableBytes(file).subspan(at + blockHeaderSize);
        ByteVector plain, shown = listing(heading);
        ASSERT_EQ(BlockDecoder(*keys).decode(*block, sealed, {}, plain), BlockFault::none) << heading;
        shown.resize(plain.size());
        EXPECT_TRUE(shown == plain) << heading;
        at += blockHeaderSize + block->sealedLength;
    }
}

}  // namespace
