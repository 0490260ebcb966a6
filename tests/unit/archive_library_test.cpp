#include "platform/archive/archive_library.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "platform/archive/encryption_context.h"
#include "unit/archive_builder.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;

namespace {

using PathListHandle = std::unique_ptr<PathList, FreeWith<destroyPathList>>;
using KeySetHandle = std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>>;
using ContextHandle = std::unique_ptr<EncryptionContext, FreeWith<destroyEncryptionContext>>;
using StreamHandle = std::unique_ptr<ByteStream, FreeWith<closeByteStream>>;
using ArchiveHandle = std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>>;

ContextHandle newContext() {
    ContextHandle context(createEncryptionContext(3));
    const auto point = *publicPointOf(recipient());
    EXPECT_EQ(setContextFieldBlob(context.get(), 10, 1, reinterpret_cast<const std::byte*>(point.data()), 65), 0);
    EXPECT_EQ(setContextFieldUInt(context.get(), 3, 2049), 0);
    EXPECT_EQ(setContextFieldUInt(context.get(), 4, 1048576), 0);
    return context;
}

StreamHandle newFile(const fs::path& path) {
    return StreamHandle(openFileByteStream(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
}

std::string noiseOf(std::size_t size) {
    std::string noise(size, '\0');
    for (std::uint32_t state = 1; auto& byte : noise) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return noise;
}

class ArchiveLibrary : public testing::Test {
protected:
    fs::path at(const std::string& name) const { return folder_.path / name; }

    std::string file(const std::string& name, std::string_view content) const {
        std::ofstream(at(name), std::ios::binary) << content;
        return at(name);
    }
    // Files are made old: one that changes while the archive is written is not stored by reference.
    static void waitForTick() {
        struct timespec begin {
        }, now{};
        clock_gettime(CLOCK_REALTIME_COARSE, &begin);
        do clock_gettime(CLOCK_REALTIME_COARSE, &now);
        while (now.tv_sec == begin.tv_sec && now.tv_nsec == begin.tv_nsec);
    }

    static PathListHandle listOf(const Seen& paths) {
        PathListHandle list(newPathList());
        for (const auto& path : paths) {
            const PathListHandle one(pathListForPath("/", path));
            EXPECT_TRUE(one) << path;
            EXPECT_EQ(mergePathLists(list.get(), one.get()), 0);
        }
        return list;
    }

    // The whole way of an archive; the status of writePathList.
    int write(const PathListHandle& list, int workers = 4, const ContextHandle& context = newContext()) const {
        const KeySetHandle keys(fieldKeySetFromString("UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL"));
        const auto output = newFile(archive());
        const StreamHandle sealed(openEncryptionOutputStream(output.get(), context.get(), streamFlags, workers));
        const ArchiveHandle encoder(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, workers));
        return writePathList(encoder.get(), list.get(), keys.get(), "/", nullptr, nullptr, 0, workers);
    }
    int write(const Seen& paths) const { return write(listOf(paths)); }
    fs::path archive() const { return at("archive.qvx"); }
    ByteVector bytes() const {
        std::ifstream stream(archive(), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    // What a complete and careful reading gives, the folder's own name left out.
    Seen read() const {
        ReadFault fault;
        Recorder recorder;
        const auto reader = openArchive(bytes(), fault);
        EXPECT_TRUE(reader && reader->readAll(recorder, fault)) << fault.what;
        const auto own = folder_.path.string().substr(1) + '/';
        for (auto& entry : recorder.seen)
            if (entry.starts_with(own)) entry.erase(0, own.size());
        return recorder.seen;
    }

    TemporaryFolder folder_;
};

TEST_F(ArchiveLibrary, BringsBackEntriesInTheOrderOfTheListAndWhatIsListedTwiceOnce) {
    const auto noise = noiseOf(400000);
    const auto small = file("small", "s"), path = file("noise", noise);
    fs::create_hard_link(path, at("linked"));
    fs::create_symlink("nowhere", at("link"));
    fs::create_symlink("/proc/self", at("around"));
    std::ofstream(at("sparse")).seekp(2500000) << "x";
    waitForTick();
    std::string version;
    std::getline(std::ifstream("/proc/version"), version);  // a file that says it is empty, and is not
    ASSERT_EQ(
        write({small, at("link"), path, at("linked"), at("sparse"), path, "/proc/version", at("around/../version")}),
        0);
    EXPECT_EQ(read(), (Seen{"small=s", "link=nowhere", "noise=" + noise, "linked=" + noise,
                            "sparse=" + std::string(2500000, '\0') + "x", "noise=" + noise,
                            "proc/version=" + version + "\n", "proc/version=" + version + "\n"}));
    EXPECT_LT(bytes().size(), 500000U);
    ASSERT_EQ(write(Seen{}), 0);
    EXPECT_EQ(read(), Seen{});
}

TEST_F(ArchiveLibrary, GivesTheSameBytesWithAnyNumberOfWorkers) {
    const auto list = listOf({file("a", std::string(5000000, 'a')), file("b", "b"), at("a")});
    waitForTick();
    const auto context = newContext();
    Scalar scalar{};
    scalar.fill(0x22);
    context->ephemeral = privateKeyFromScalar(scalar);
    ByteVector first;
    for (const int workers : {1, 2, 8}) {
        ASSERT_EQ(write(list, workers, context), 0);
        if (first.empty()) first = bytes();
        EXPECT_TRUE(bytes() == first) << workers;
    }
}

TEST_F(ArchiveLibrary, KeepsAnIndexOfManyParts) {
    const auto folder = std::string(200, 'd');
    fs::create_directory(at(folder));
    const auto pair = listOf({file("f", "f"), file(folder + "/" + std::string(200, 'g'), "g")});
    const auto list = listOf({});
    for (int i = 0; i < 1500; ++i) ASSERT_EQ(mergePathLists(list.get(), pair.get()), 0);
    ASSERT_EQ(write(list), 0);
    EXPECT_EQ(read().size(), 3000U);
}

TEST_F(ArchiveLibrary, StoresAFileThatWasRotatedSinceItWasListed) {
    const auto list = listOf({file("before", "1"), file("victim", "2"), file("after", "3")});
    fs::rename(at("victim"), at("victim.1"));
    file("victim", "rotated");
    EXPECT_EQ(write(list), 0);
    EXPECT_EQ(read(), (Seen{"before=1", "victim=rotated", "after=3"}));
}

TEST_F(ArchiveLibrary, StoresAFileThatChangesWhileItIsReadAsItWasRead) {
    // The fields of a file are taken some time before its content, so these two may meet anywhere.
    const auto path = file("growing", std::string(200000, 'g')), after = file("after", "3");
    std::jthread writer([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::ofstream(path, std::ios::app) << std::string(100000, 'g');
            fs::resize_file(path, 100000);
        }
    });
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(write({path, after, path}), 0);
        const auto seen = read();
        EXPECT_TRUE(seen.size() == 3 && seen[1] == "after=3") << seen.size();
    }
}

TEST_F(ArchiveLibrary, ComesToAnEndWithAHoleOfTebibytes) {
    struct : Recorder {
        bool hole(std::uint64_t length) override { return length <= (std::uint64_t{1} << 41); }
        bool finish(const EntryTail& tail, const ContentReader&) override {
            seen.push_back(std::to_string(tail.sum->size) + (tail.digest ? " with a digest" : ""));
            return true;
        }
    } sizes;
    const auto path = file("huge", "");
    fs::resize_file(path, std::uintmax_t{1} << 41);
    ASSERT_EQ(write(Seen{path}), 0);
    ReadFault fault;
    EXPECT_TRUE(openArchive(bytes(), fault)->readAll(sizes, fault)) << fault.what;
    EXPECT_EQ(sizes.seen, Seen{"2199023255552"});
}

TEST_F(ArchiveLibrary, OpensRegularFilesOnlyAndSetsTheirMode) {
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("target"), at("link"));
    for (const auto* name : {"fifo", "link", "."}) EXPECT_FALSE(newFile(at(name))) << name;
    EXPECT_FALSE(fs::exists(at("target")));
    const mode_t mask = umask(0777);
    EXPECT_TRUE(newFile(at("new")));
    umask(mask);
    EXPECT_EQ(fs::status(at("new")).permissions(), fs::perms(0644));
}

}  // namespace
