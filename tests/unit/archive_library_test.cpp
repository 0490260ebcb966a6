#include "platform/archive/archive_library.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>

#include "platform/archive/encryption_context.h"
#include "unit/archive_builder.h"
#include "unit/hex.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;

namespace {

constexpr const char* allKeys = "UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL";

using PathListHandle = std::unique_ptr<PathList, FreeWith<destroyPathList>>;
using KeySetHandle = std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>>;
using ContextHandle = std::unique_ptr<EncryptionContext, FreeWith<destroyEncryptionContext>>;
using StreamHandle = std::unique_ptr<ByteStream, FreeWith<closeByteStream>>;
using ArchiveHandle = std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>>;

KeyHandle keyFrom(std::uint8_t byte) {
    Scalar scalar{};
    scalar.fill(byte);
    return privateKeyFromScalar(scalar);
}

EVP_PKEY* recipient() {
    static const KeyHandle key = keyFrom(0x11);
    return key.get();
}

int setPoint(EncryptionContext* context, const Point& point, std::size_t length = 65, int representation = 1) {
    return setContextFieldBlob(context, 10, representation, reinterpret_cast<const std::byte*>(point.data()), length);
}

ContextHandle newContext() {
    ContextHandle context(createEncryptionContext(3));
    EXPECT_EQ(setPoint(context.get(), *publicPointOf(recipient())), 0);
    EXPECT_EQ(setContextFieldUInt(context.get(), 3, 2049), 0);
    EXPECT_EQ(setContextFieldUInt(context.get(), 4, 1048576), 0);
    return context;
}

class ArchiveLibrary : public testing::Test {
protected:
    fs::path at(const std::string& name) const { return folder_.path / name; }

    // Files are made old: one that changes while the archive is written is not stored by reference.
    std::string file(const std::string& name, std::string_view content) const {
        std::ofstream(at(name), std::ios::binary) << content;
        waitForTick();
        return at(name);
    }
    static void waitForTick() {
        struct timespec begin {
        }, now{};
        clock_gettime(CLOCK_REALTIME_COARSE, &begin);
        do clock_gettime(CLOCK_REALTIME_COARSE, &now);
        while (now.tv_sec == begin.tv_sec && now.tv_nsec == begin.tv_nsec);
    }

    static PathListHandle listOf(const std::vector<std::string>& paths) {
        PathListHandle list(newPathList());
        for (const auto& path : paths) {
            const PathListHandle one(pathListForPath("/", path));
            EXPECT_TRUE(one) << path;
            EXPECT_EQ(mergePathLists(list.get(), one.get()), 0);
        }
        return list;
    }

    // The whole way of an archive; the status of writePathList.
    int write(const PathList* list, int workers = 4, const EncryptionContext* context = nullptr) const {
        const ContextHandle own = newContext();
        const KeySetHandle keys(fieldKeySetFromString(allKeys));
        const StreamHandle output(openFileByteStream(archive().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        const StreamHandle sealed(
            openEncryptionOutputStream(output.get(), context ? context : own.get(), streamFlags, workers));
        const ArchiveHandle encoder(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, workers));
        const int status = writePathList(encoder.get(), list, keys.get(), "/", nullptr, nullptr, 0, workers);
        EXPECT_NE(writePathList(encoder.get(), list, keys.get(), "/", nullptr, nullptr, 0, workers), 0);
        return status;
    }
    fs::path archive() const { return at("archive.qvx"); }
    ByteVector bytes() const {
        std::ifstream stream(archive(), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    // What a complete and careful reading gives, the folder's own name left out.
    std::vector<std::string> read() const {
        ReadFault fault;
        Recorder recorder;
        const auto reader = openArchive(bytes(), recipient(), fault);
        EXPECT_TRUE(reader && reader->readAll(recorder, fault)) << fault.what;
        for (auto& entry : recorder.seen)
            if (('/' + entry).starts_with(folder_.path.string())) entry.erase(0, folder_.path.string().size());
        return recorder.seen;
    }

    TemporaryFolder folder_;
};

using Seen = std::vector<std::string>;

TEST_F(ArchiveLibrary, BringsBackEntriesInTheOrderOfTheList) {
    const auto big = file("big", std::string(3000000, 'b') + "end");
    const auto small = file("small", "s");
    const auto empty = file("empty", "");
    fs::create_directory(at("folder"));
    fs::create_symlink("nowhere", at("link"));
    {
        std::ofstream sparse(at("sparse"));
        sparse.seekp(2500000) << "x";
    }
    ASSERT_EQ(write(listOf({small, at("link"), big, at("folder"), at("sparse"), empty}).get()), 0);
    EXPECT_EQ(read(), (Seen{"small=s", "link=nowhere", "big=" + std::string(3000000, 'b') + "end",
                            "folder=", "sparse=" + std::string(2500000, '\0') + "x", "empty="}));
    EXPECT_LT(bytes().size(), 40000U);
    ASSERT_EQ(write(listOf({}).get()), 0);
    EXPECT_EQ(read(), Seen{});
}

TEST_F(ArchiveLibrary, ReadsFilesThatSayTheyAreEmptyAndAreNot) {
    std::string version;
    std::getline(std::ifstream("/proc/version"), version);
    ASSERT_EQ(write(listOf({"/proc/version", "/proc/version"}).get()), 0);
    EXPECT_EQ(read(), Seen(2, "proc/version=" + version + "\n"));
}

TEST_F(ArchiveLibrary, StoresWhatIsListedTwiceAndHardLinksOnce) {
    std::string noise(400000, '\0');
    std::generate(noise.begin(), noise.end(), [state = std::uint32_t{1}]() mutable {
        state = state * 1664525 + 1013904223;
        return static_cast<char>(state >> 24);
    });
    const auto path = file("noise", noise);
    fs::create_hard_link(path, at("linked"));
    waitForTick();
    ASSERT_EQ(write(listOf({path, at("linked"), path}).get()), 0);
    EXPECT_EQ(read(), (Seen{"noise=" + noise, "linked=" + noise, "noise=" + noise}));
    EXPECT_LT(bytes().size(), 500000U);
}

TEST_F(ArchiveLibrary, GivesTheSameBytesWithAnyNumberOfWorkers) {
    const auto list = listOf({file("a", std::string(5000000, 'a')), file("b", "b"), at("a")});
    const auto context = newContext();
    context->ephemeral = keyFrom(0x22);
    ByteVector first;
    for (const int workers : {1, 2, 8}) {
        ASSERT_EQ(write(list.get(), workers, context.get()), 0);
        if (first.empty()) first = bytes();
        EXPECT_TRUE(bytes() == first) << workers;
    }
}

TEST_F(ArchiveLibrary, KeepsAnIndexOfManyParts) {
    const auto path = file("f", "f");
    fs::create_directory(at(std::string(200, 'd')));
    const auto other = file(std::string(200, 'd') + "/" + std::string(200, 'g'), "g");
    const auto pair = listOf({path, other});
    const PathListHandle list(newPathList());
    for (int i = 0; i < 1500; ++i) ASSERT_EQ(mergePathLists(list.get(), pair.get()), 0);
    ASSERT_EQ(write(list.get()), 0);
    EXPECT_EQ(read().size(), 3000U);
}

// Something else in the place of a file, between listing and reading.
TEST_F(ArchiveLibrary, RefusesWhatIsNoLongerWhatWasListed) {
    const std::pair<const char*, std::function<void(const std::string&)>> cases[] = {
        {"nothing", [](auto&) {}},
        {"a fifo", [](auto& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }},
        {"a link", [](auto& path) { fs::create_symlink("/etc/hostname", path); }},
        {"a directory", [](auto& path) { fs::create_directory(path); }},
    };
    for (const auto& [name, replace] : cases) {
        const auto list = listOf({file("before", "1"), file("victim", "2"), file("after", "3")});
        fs::remove(at("victim"));
        replace(at("victim"));
        EXPECT_NE(write(list.get()), 0) << name;
        fs::remove_all(at("victim"));
    }
    const auto list = listOf({file("before", "1"), file("victim", "2"), file("after", "3")});
    fs::rename(at("victim"), at("victim.1"));
    file("victim", "rotated");
    EXPECT_EQ(write(list.get()), 0);
    EXPECT_EQ(read(), (Seen{"before=1", "victim=rotated", "after=3"}));
}

TEST_F(ArchiveLibrary, StoresAFileThatChangesWhileItIsReadAsItWasRead) {
    // The fields of a file are taken some time before its content, so these two may meet anywhere.
    const auto path = file("growing", std::string(200000, 'g'));
    const auto after = file("after", "3");
    std::jthread writer([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::ofstream(path, std::ios::app) << std::string(100000, 'g');
            fs::resize_file(path, 100000);
        }
    });
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(write(listOf({path, after, path}).get()), 0);
        const auto seen = read();
        ASSERT_EQ(seen.size(), 3U);
        EXPECT_EQ(seen[1], "after=3");
    }
}

TEST_F(ArchiveLibrary, ReportsAFullDisk) {
    const auto list = listOf({file("file", std::string(200000, 'n'))});
    ASSERT_EQ(write(list.get()), 0);
    const auto whole = bytes().size();
    for (const std::size_t limit : {std::size_t{0}, std::size_t{128}, std::size_t{129}, whole / 2, whole - 1}) {
        const pid_t child = fork();
        if (child == 0) {
            signal(SIGXFSZ, SIG_IGN);
            const struct rlimit size { limit, limit };
            setrlimit(RLIMIT_FSIZE, &size);
            _exit(write(list.get()) == 0 ? 0 : 42);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << limit;
    }
}

TEST_F(ArchiveLibrary, TakesOnlyTheSettingsItKnows) {
    EXPECT_EQ(createEncryptionContext(2), nullptr);
    auto point = *publicPointOf(recipient());
    const auto context = newContext();
    EXPECT_LT(setPoint(context.get(), point, 64), 0);
    EXPECT_LT(setPoint(context.get(), point, 65, 2), 0);
    EXPECT_LT(setContextFieldUInt(context.get(), 3, 2048), 0);
    EXPECT_LT(setContextFieldUInt(context.get(), 4, 4096), 0);
    EXPECT_LT(setContextFieldUInt(context.get(), 5, 1), 0);

    const StreamHandle output(openFileByteStream(archive().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    const auto opens = [&](const EncryptionContext* with, std::uint64_t flags) {
        return StreamHandle(openEncryptionOutputStream(output.get(), with, flags, 4)) != nullptr;
    };
    EXPECT_TRUE(opens(context.get(), streamFlags));
    EXPECT_FALSE(opens(context.get(), 0));
    EXPECT_FALSE(opens(ContextHandle(createEncryptionContext(3)).get(), streamFlags));
    point[64] ^= 1;
    EXPECT_EQ(setPoint(context.get(), point), 0);
    EXPECT_FALSE(opens(context.get(), streamFlags)) << "a point that is not on the curve";
    EXPECT_EQ(openArchiveEncoderStream(output.get(), nullptr, nullptr, 0, 4), nullptr);

    for (const std::string keys : {"", "UID,", ",UID", "UID,UID", "uid", "UID GID", "XXX"})
        EXPECT_EQ(fieldKeySetFromString(keys), nullptr) << keys;
}

TEST_F(ArchiveLibrary, ListsOnlyWhatAnArchiveHolds) {
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    for (const std::string& path :
         {std::string(), at("missing").string(), at("fifo").string(), std::string("/dev/null")})
        EXPECT_EQ(pathListForPath("/", path), nullptr) << path;
}

TEST_F(ArchiveLibrary, OpensRegularFilesOnlyAndSetsTheirMode) {
    const auto opens = [&](const std::string& name) {
        return StreamHandle(openFileByteStream(at(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)) != nullptr;
    };
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("target"), at("link"));
    EXPECT_FALSE(opens("fifo"));
    EXPECT_FALSE(opens("link"));
    EXPECT_FALSE(fs::exists(at("target")));
    EXPECT_FALSE(opens("."));
    const mode_t mask = umask(0777);
    EXPECT_TRUE(opens("new"));
    umask(mask);
    EXPECT_EQ(fs::status(at("new")).permissions(), fs::perms(0644));
}

}  // namespace
