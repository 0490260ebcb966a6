// Writing an archive while calls of the system fail, and while the files change at the worst moment. Each case is a
// process of its own, so that a crash or a hang is a case that failed.
#include <execinfo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <random>
#include <set>

#include "base/fatal_error.h"
#include "capture/archive_writer.h"
#include "platform/archive/ssh_key.h"
#include "qvx/create.h"
#include "unit/archive_builder.h"
#include "unit/faulty_calls.h"
#include "unit/temporary_folder.h"

using namespace tarnwick;
using namespace tarnwick::test;
namespace fs = std::filesystem;

namespace {

constexpr unsigned hangs = 60;  // seconds
constexpr unsigned forever = 1000000;
constexpr int placeDepth = 9;  // the frames of the hook included

enum class Verdict { whole, refused, notReached, damaged, leaking, left, unknownMessage, died };
enum class Expected { whole, refused, either };

// Of the key whose every byte is 0x11. Written out, so that a fault may meet the cipher library's initialisation, too.
const std::string recipient =
    "ecdsa-sha2-nistp256 AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBAIX5hfwtkQ5KCePlp"
    "meaaI6TywVK99tbN9m5bgCgtTtGUp968uXcS0t2jyoWqh2Wlb0X8dYWZZS8ol8ZTBuV5Q=";

const std::set<std::string> messages = {"unable to create sublist",
                                        "unable to merge path lists",
                                        "failed to parse key",
                                        "encryptFile: Context creation failed",
                                        "Context setup failed",
                                        "couldnt create keyset",
                                        "Error creating destination file",
                                        "Error calling QVXEncryptionOutputStreamOpen",
                                        "Error creating encoder",
                                        "error when writing pathlist to archive"};

std::ptrdiff_t openFiles() { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); }

class ArchiveFaults : public testing::Test {
public:
    void SetUp() override {
        fs::create_directory(source_);
        std::string noise(1200000, '\0');
        std::generate(noise.begin(), noise.end(), [dice = std::mt19937(7)]() mutable { return char(dice()); });
        list("", "");
        write("a", "content");
        ::setxattr((source_ / "a").c_str(), "user.note", "1", 1, 0);
        write("b", noise);
        write("c", "");
        std::ofstream(source_ / "d").seekp(300000) << "end";
        list("d", std::string(300000, '\0') + "end");
        fs::create_hard_link(source_ / "b", source_ / "e");
        list("e", noise);
        fs::create_symlink("a", source_ / "f");
        list("f", "a");
    }
    void write(const std::string& name, const std::string& content) {
        std::ofstream(source_ / name) << content;
        list(name, content);
    }
    void list(const std::string& name, const std::string& content) {
        files_.push_back(name.empty() ? source_ : source_ / name);
        expected_.push_back(files_.back().string().substr(1) + '=' + content);
    }

    // Both give the message with which they refuse, or an empty text.
    std::string capture() const {
        try {
            encryptFile(files_, recipient, archive_);
            return {};
        } catch (const FatalError& error) {
            return error.what();
        }
    }
    std::string qvx() const {
        try {
            return createArchive({recipient, archive_, "", {source_}}) ? "" : *messages.begin();
        } catch (const std::bad_alloc&) {  // as main() has it
        } catch (const std::system_error&) {
        }
        return *messages.begin();
    }

    bool whole() const {
        Scalar scalar{};
        scalar.fill(0x11);
        ReadFault fault;
        auto file = ArchiveFile::open(FileDescriptor(::open(archive_.c_str(), O_RDONLY | O_CLOEXEC)), fault);
        const auto reader =
            file ? ArchiveReader::open(std::move(file), privateKeyFromScalar(scalar).get(), fault) : nullptr;
        Recorder recorder;
        return reader && reader->readAll(recorder, fault) && (expected_.empty() || recorder.seen == expected_);
    }

    using Writer = std::string (ArchiveFaults::*)() const;

    Verdict judge(Writer writer, const Fault& fault) const {
        const auto files = openFiles();
        arm(fault);
        const std::string message = (this->*writer)();
        const bool reached = disarm() > fault.first;
        if (openFiles() != files || runningThreads() != 0) return Verdict::leaking;
        if (message.empty()) return !whole() ? Verdict::damaged : reached ? Verdict::whole : Verdict::notReached;
        if (!messages.contains(message)) return Verdict::unknownMessage;
        return fs::exists(archive_) ? Verdict::left : Verdict::refused;
    }

    Verdict run(Writer writer, const Fault& fault) {
        ++cases_;
        fs::remove(archive_);
        const pid_t child = fork();
        if (child == 0) {
            ::alarm(hangs);
            ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            ::dup2(STDOUT_FILENO, STDERR_FILENO);
            ::_exit(static_cast<int>(judge(writer, fault)));
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? Verdict(WEXITSTATUS(status)) : Verdict::died;
    }

    Verdict expect(Writer writer, const Fault& fault, Expected expected) {
        const Verdict verdict = run(writer, fault);
        const bool good = verdict == Verdict::notReached ||
                          (verdict == Verdict::whole && expected != Expected::refused) ||
                          (verdict == Verdict::refused && expected != Expected::whole);
        EXPECT_TRUE(good) << fault.call << ' ' << fault.first << ", error " << fault.error << " times " << fault.times
                          << ": verdict " << static_cast<int>(verdict);
        return verdict;
    }

    // The first call fails, the second, and so on, until there is none left to fail.
    void expectAll(
        Writer writer, Fault fault, Expected expected, const std::function<void()>& tidyUp = [] {}) {
        for (; expect(writer, fault, expected) != Verdict::notReached; ++fault.first) tidyUp();
    }

    // Of the thousands of allocations, the first from each place: most are of a few loops.
    std::vector<unsigned> allocations(Writer writer) const {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        std::vector<unsigned> firsts;
        const pid_t child = fork();
        if (child == 0) {
            std::set<std::array<void*, placeDepth>> places;
            std::mutex mutex;
            unsigned number = 0;
            const auto look = [&] {
                const std::lock_guard lock(mutex);
                std::array<void*, placeDepth> place{};
                ::backtrace(place.data(), placeDepth);
                if (places.insert(place).second) firsts.push_back(number);
                ++number;
            };
            look();
            number = 0;
            arm({"memory", 0, forever, 0, look});
            (this->*writer)();
            disarm();
            ::_exit(::write(ends[1], firsts.data(), firsts.size() * sizeof(unsigned)) > 0 ? 0 : 1);
        }
        EXPECT_EQ(::waitpid(child, nullptr, 0), child);
        firsts.resize(16384);  // all that a pipe holds
        const ssize_t length = ::read(ends[0], firsts.data(), firsts.size() * sizeof(unsigned));
        EXPECT_GT(length, 0);
        firsts.resize(static_cast<std::size_t>(length) / sizeof(unsigned));
        ::close(ends[0]);
        ::close(ends[1]);
        return firsts;
    }
    void expectNoMemory(Writer writer) {
#if defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "the sanitizer allocates";
#endif
        for (const unsigned number : allocations(writer))
            expect(writer, {"memory", number, 1, ENOMEM, {}}, Expected::either);
        RecordProperty("cases", static_cast<int>(cases_));
    }

    TemporaryFolder folder_;
    const fs::path source_ = folder_.path / "source";
    const fs::path archive_ = folder_.path / "archive.qvx";
    FilesList files_;
    std::vector<std::string> expected_;
    unsigned cases_ = 0;
};

TEST_F(ArchiveFaults, EndInAWholeArchiveOrInARefusalWithoutAFile) {
    const std::pair<Fault, Expected> faults[] = {
        {{"open", 0, 1, EMFILE, {}}, Expected::either},   {{"stat", 0, 1, EIO, {}}, Expected::either},
        {{"read", 0, 1, EIO, {}}, Expected::refused},     {{"read", 0, 3, EINTR, {}}, Expected::whole},
        {{"read", 0, 1, halved, {}}, Expected::whole},    {{"link", 0, 1, EIO, {}}, Expected::refused},
        {{"write", 0, 1, EIO, {}}, Expected::refused},    {{"write", 0, forever, ENOSPC, {}}, Expected::refused},
        {{"write", 0, 3, EINTR, {}}, Expected::whole},    {{"write", 0, forever, halved, {}}, Expected::whole},
        {{"seek", 0, 1, EIO, {}}, Expected::either},      {{"seek", 0, 1, EINVAL, {}}, Expected::whole},
        {{"mode", 0, 1, EPERM, {}}, Expected::refused},   {{"flags", 0, 1, ENOTTY, {}}, Expected::whole},
        {{"xattr", 0, 1, EIO, {}}, Expected::whole},      {{"close", 0, 1, EIO, {}}, Expected::whole},
        {{"thread", 0, 1, EAGAIN, {}}, Expected::either}, {{"thread", 0, forever, EAGAIN, {}}, Expected::either},
        {{"readdir", 0, 1, EIO, {}}, Expected::refused},
    };
    for (const auto& [fault, expected] : faults)
        for (const Writer writer : {&ArchiveFaults::capture, &ArchiveFaults::qvx}) expectAll(writer, fault, expected);
}

TEST_F(ArchiveFaults, OutOfMemoryInTheCapture) { expectNoMemory(&ArchiveFaults::capture); }
TEST_F(ArchiveFaults, OutOfMemoryInTheTool) { expectNoMemory(&ArchiveFaults::qvx); }

TEST_F(ArchiveFaults, WriteEverythingBeforeTheFileIsClosed) {
    std::atomic<bool> written = false;
    arm({"close", 0, forever, 0, [&] { written = whole(); }});
    EXPECT_EQ(capture(), "");
    disarm();
    EXPECT_TRUE(written);
}

// Something else in the place of a file at the last moment: when its type was looked at, and before it is opened.
TEST_F(ArchiveFaults, ExchangedFilesAreStoredAsListedOrRefused) {
    const fs::path victim = source_ / "a";
    const std::function<void()> exchanges[] = {
        [] {},
        [&] { ::mkfifo(victim.c_str(), 0600); },
        [&] { ::mknod(victim.c_str(), S_IFCHR | 0600, ::makedev(1, 5)); },
        [&] { fs::create_symlink("/etc/hostname", victim); },
        [&] { fs::create_directory(victim); },
    };
    for (const auto& exchange : exchanges)
        for (const char* call : {"open", "read"})
            expectAll(&ArchiveFaults::capture,
                      {call, 0, 1, 0,
                       [&] {
                           fs::rename(victim, folder_.path / "away");
                           exchange();
                       }},
                      Expected::either, [&] {
                          fs::remove(victim);
                          fs::rename(folder_.path / "away", victim);
                      });
}

TEST_F(ArchiveFaults, FilesThatGrowForEverEnd) {
    fs::remove(source_ / "e");
    const auto grow = [&] {
        for (const char* name : {"b", "c"}) std::ofstream(source_ / name, std::ios::app) << std::string(1 << 20, 'g');
    };
    files_ = {source_ / "b", source_ / "c", source_ / "a"};
    // One of a size is read up to it; one that says it is empty, as pseudo files do, up to a limit.
    expected_ = {expected_[2], expected_[3] + std::string(1 << 20, 'g'), expected_[1]};
    EXPECT_EQ(run(&ArchiveFaults::capture, {"read", 0, forever, 0, grow}), Verdict::whole);
}

TEST_F(ArchiveFaults, FoldersThatChangeWhileTheyAreReadGiveAnArchiveOrNone) {
    expected_.clear();  // any will do that is whole
    for (const char* call : {"readdir", "stat"})
        expectAll(&ArchiveFaults::qvx, {call, 0, 1, 0, [&] { fs::rename(source_ / "d", source_ / "g"); }},
                  Expected::either, [&] { fs::rename(source_ / "g", source_ / "d"); });
}

}  // namespace
