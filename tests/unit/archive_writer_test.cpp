#include "qvx/archive_writer.h"
#include "qvx/write/read_ahead.h"
#include "qvx/write/stored_order.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <regex>
#include <set>

#include "unit/archive_builder.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;
using namespace std::literals;

namespace {

std::vector<ino_t> requested;  // files of which at least 3 MiB were requested from the disk

}  // namespace

// In place of the library's.
extern "C" int posix_fadvise(int file, off_t, off_t length, int) noexcept {
    struct stat status {};
    if (length >= 3 << 20 && ::fstat(file, &status) == 0) requested.push_back(status.st_ino);
    return 0;
}

namespace {

class ArchiveWriting : public testing::Test {
protected:
    [[nodiscard]] fs::path at(const std::string& name) const { return folder_.path / name; }

    [[nodiscard]] std::string longPath(char letter, int depth) const {
        fs::path path = folder_.path;
        for (int i = 0; i < depth; ++i) path /= std::string(220, letter);
        fs::create_directories(path);
        return path;
    }

    TemporaryFolder folder_;
};

// Also a path that is the beginning of the next, and one that shares nothing with it.
TEST_F(ArchiveWriting, WritesAnIndexOfManyParts) {
    const auto other = folder_.write(std::string(200, 'd') + '/' + std::string(200, 'g') + ".log", "g");
    const auto one = folder_.write("f.txt", "f");
    Seen paths, entries;
    for (int i = 0; i < 2000; ++i) paths.insert(paths.end(), {one, other.parent_path(), other});
    // Files of one extension are stored together, after all directories.
    for (const auto& path : {other.parent_path(), one, other})
        entries.insert(entries.end(), 2000,
                       path.string().substr(1) + '=' + (fs::is_directory(path) ? "" : contentOf(path)));
    expectEntries(writeArchive(guardedList(paths)), entries);
}

// "x" for each block that a reader of the index opens, "-" for each other.
std::string neededToList(ByteVector archive) {
    std::string needed, magic(blockMagic.begin(), blockMagic.end()), text(archive.begin(), archive.end());
    for (auto at = text.find(magic); at != std::string::npos; at = text.find(magic, at + 1)) {
        archive[at] ^= 1;
        Reading reading(archive);
        needed += reading.listed().empty() || !reading.faults.empty() ? 'x' : '-';
        archive[at] ^= 1;
    }
    return needed;
}

// Long paths end the first section early. Both extensions are kinds.
TEST_F(ArchiveWriting, WritesAnIndexThatIsReadWithoutAnyContent) {
    Seen paths;
    for (const char* name : {"/f.txt", "/f.log"})
        paths.insert(paths.end(), 2500, folder_.write(longPath('d', 17) + name, name));
    const std::string needed = neededToList(writeArchive(guardedList(paths)));
    EXPECT_TRUE(std::regex_match(needed, std::regex("-+x-+xxx"))) << needed;  // two indexes, root and trailer
    EXPECT_EQ(neededToList(writeArchive(guardedList({folder_.write("s.txt", "s")}))), "xxx");
}

// Long paths, so that the rest of the first section is too short for a part of the index.
TEST_F(ArchiveWriting, OrdersALongListInSections) {
    const Seen longPaths{longPath('a', 10), longPath('b', 10)};
    Seen paths, stored;
    const std::string file = folder_.write("f.txt", "f");
    const auto add = [&](std::size_t files, std::size_t directories) {
        paths.insert(paths.end(), files, file);
        for (std::size_t i = 0; i < directories; ++i) paths.push_back(longPaths[i % 2]);
        for (std::size_t i = 0; i < directories; ++i) stored.push_back(longPaths[i % 2].substr(1) + '=');
        stored.insert(stored.end(), files, file.substr(1) + "=f");
    };
    add(StoredOrder::maxSection - 300, 300);
    add(50, 60);
    const std::string twice = folder_.write("g.txt", "g");  // the second one refers to the first
    paths.insert(paths.end(), 2, twice);
    stored.insert(stored.end(), 2, twice.substr(1) + "=g");
    Reading reading(writeArchive(guardedList(paths)));
    for (auto& path : paths) path.erase(0, 1);
    EXPECT_EQ(reading.listed(), paths);
    EXPECT_EQ(reading.all(), stored);
    EXPECT_EQ(reading.faults, "");
}

void expectFields(const ByteVector& archive, const Seen& expected) { expectEntries<FieldsSink>(archive, expected); }

// The digest of the huge file would take minutes. No sparse file after it has one.
TEST_F(ArchiveWriting, HashesTerabytesOfZeros) {
    const auto small = folder_.write("small", "s"), sparse = folder_.write("sparse", "");
    fs::resize_file(folder_.write("huge", ""), 1'000'000'000'000);
    fs::resize_file(sparse, 1'000'000);
    expectFields(writeArchive(guardedList({sparse, at("huge"), small})), {"1000000/1#", "1000000000000/1", "1/0#"});
    expectFields(writeArchive(guardedList({at("huge"), sparse})), {"1000000000000/1", "1000000/1"});
}

// A reader needs the size of a content with holes.
TEST_F(ArchiveWriting, LeavesOutNeededFieldsWithoutTheirKeys) {
    fs::resize_file(folder_.write("sparse", ""), 1'000'000);
    const auto list = guardedList({at("sparse"), folder_.write("plain", "p")});
    expectFields(writeArchive(list, fieldBit("DAT")), {"1000000/1", "1/0"});
}

// In memory: a disk has no space for such attributes, and cannot express such times.
TEST_F(ArchiveWriting, DropsMetadataPastTheLimitsInSilence) {
    const TemporaryFolder memory("/dev/shm/");
    const auto attributes = memory.write("attributes", "a"), time = memory.write("time", "t");
    const timespec year3000[] = {{32503680000, 0}, {32503680000, 0}};
    const auto set = [&](char letter, const std::string& value) {
        return ::setxattr(attributes.c_str(), ("trusted."s + letter).c_str(), value.data(), value.size(), 0) == 0;
    };
    bool supported = ::utimensat(AT_FDCWD, time.c_str(), year3000, 0) == 0 && set('z', "short");
    for (const char letter : "abcdefghijklmnop"s) supported = supported && set(letter, std::string(65536, 'v'));
    if (!supported) GTEST_SKIP() << "/dev/shm cannot have such metadata: " << std::strerror(errno);

    const auto list = guardedList({attributes, time});
    auto writer = ArchiveWriter::open(recipients(), 1, [](Bytes) { return Status(); });
    const auto incomplete = writer->write(list, allFields, 1);
    ASSERT_TRUE(incomplete && incomplete->size() == 2);
    EXPECT_EQ(incomplete->front().error, E2BIG);
    EXPECT_EQ(incomplete->back().error, EOVERFLOW);
    expectFields(writeArchive(list), {"1/0#+16!", "1/0#!"});  // the last of the long ones does not fit
}

// Those of one extension are stored last. An archive cannot express their times.
TEST_F(ArchiveWriting, NamesIncompleteEntriesInTheOrderOfTheList) {
    const TemporaryFolder memory("/dev/shm/");
    const timespec year3000[] = {{32503680000, 0}, {32503680000, 0}};
    Seen paths(StoredOrder::minKind, memory.write("a.log", ""));
    paths.push_back(memory.write("b.txt", ""));
    for (const auto& path : {paths.front(), paths.back()})
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), year3000, 0), 0);
    auto writer = ArchiveWriter::open(recipients(), 1, [](Bytes) { return Status(); });
    const auto incomplete = writer->write(guardedList(paths), allFields, 1);
    ASSERT_TRUE(incomplete && incomplete->size() == paths.size());
    for (std::size_t i = 0; i < paths.size(); ++i) EXPECT_EQ((*incomplete)[i].number, i);
}

// Those of one batch after the other: 8 MiB, rounded up to whole files, with the one that is returned.
TEST_F(ArchiveWriting, RequestsEachLargeFileOnceAndFewOfThemAhead) {
    Seen paths;
    for (std::size_t i = 0; i < ReadAhead::batchEntries + 6; ++i)
        fs::resize_file(paths.emplace_back(folder_.write(std::to_string(i), "")), 3 << 20);
    const auto list = guardedList(paths);
    requested.clear();
    ReadAhead ahead(list, 1);
    std::vector<ino_t> returned;
    std::set<std::size_t> filesAhead;
    while (const DiskEntry* entry = ahead.next()) {
        returned.push_back(entry->status.stx_ino);
        filesAhead.insert(requested.size() - returned.size());
    }
    EXPECT_EQ(requested, returned);
    EXPECT_EQ(filesAhead, (std::set<std::size_t>{0, 1, 2}));
}

// The file is exchanged between the listing and the reading. Links are in the program's tests.
TEST_F(ArchiveWriting, StoresARotatedLogButNoFileOfAnotherFolder) {
    const auto own = folder_.write("logs/log", "own"), secret = folder_.write("secret/log", "secret");
    const auto list = guardedList({own});
    fs::rename(own, at("log.1"));
    folder_.write("logs/log", "new");
    EXPECT_NE(writeArchive(list), ByteVector());
    fs::remove(own);
    fs::create_hard_link(secret, own);
    EXPECT_EQ(writeArchive(list), ByteVector()) << "a second name";
    fs::remove_all(at("logs"));
    fs::rename(at("secret"), at("logs"));
    EXPECT_EQ(writeArchive(list), ByteVector()) << "another folder";
    PathList unguarded;
    unguarded.append(*lookUp("/", folder_.write("other/version", "own").string()));
    EXPECT_NE(writeArchive(unguarded), ByteVector());
    fs::remove_all(at("other"));
    fs::create_directory_symlink("/proc", at("other"));
    EXPECT_EQ(writeArchive(unguarded), ByteVector()) << "another device";
}

TEST_F(ArchiveWriting, OverwritesNoLinkFifoOrFolder) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("target"), at("link"));
    for (const auto* name : {"fifo", "link", "."})
        EXPECT_FALSE(openArchiveForWriting(at(name), O_WRONLY | O_CREAT | O_TRUNC, 0644)) << name;
}

}  // namespace
