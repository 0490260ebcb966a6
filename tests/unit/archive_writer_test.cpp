#include "qvx/archive_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "unit/archive_builder.h"
#include "unit/clock_tick.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;

namespace {

class ArchiveWriting : public testing::Test {
protected:
    [[nodiscard]] fs::path at(const std::string& name) const { return folder_.path / name; }

    // What a complete and careful reading of an archive of these gives, the folder's own name left out.
    Seen roundTrip(const Seen& paths) {
        bytes_ = writeArchive(guardedList(paths));
        CheckingSink sink;
        const auto reader = openArchive(bytes_);
        EXPECT_TRUE(reader && (*reader)->readAll(sink));
        const auto own = folder_.path.string().substr(1) + '/';
        for (auto& entry : sink.seen)
            if (entry.starts_with(own)) entry.erase(0, own.size());
        return sink.seen;
    }

    TemporaryFolder folder_;
    ByteVector bytes_;
};

TEST_F(ArchiveWriting, KeepsTheOrderOfTheListAndStoresDuplicatesOnce) {
    std::string noise(400000, '\0');
    std::ranges::generate(noise, [dice = std::mt19937(7)]() mutable { return static_cast<char>(dice()); });
    const auto small = folder_.write("small", "s"), path = folder_.write("noise", noise);
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

// Also a path that is the beginning of the next, and one that shares nothing with it.
TEST_F(ArchiveWriting, WritesAnIndexOfManyParts) {
    const std::string folder(200, 'd'), name = folder + '/' + std::string(200, 'g');
    const auto other = folder_.write(name, "g"), one = folder_.write("f", "f");
    Seen paths, entries;
    for (int i = 0; i < 2000; ++i) {
        paths.insert(paths.end(), {one, at(folder), other});
        entries.insert(entries.end(), {"f=f", folder + '=', name + "=g"});
    }
    EXPECT_TRUE(roundTrip(paths) == entries);
}

TEST_F(ArchiveWriting, HashesNoTebibytesOfHoles) {
    fs::resize_file(folder_.write("huge", ""), std::uintmax_t{1} << 41);
    EXPECT_NE(writeArchive(guardedList({at("huge")})), ByteVector());
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
}

TEST_F(ArchiveWriting, OverwritesNoLinkFifoOrFolder) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("target"), at("link"));
    for (const auto* name : {"fifo", "link", "."})
        EXPECT_FALSE(openArchiveForWriting(at(name), O_WRONLY | O_CREAT | O_TRUNC, 0644)) << name;
}

}  // namespace
