// Writing an archive while calls of the system fail, and while the files change at the worst moment. Each run is a
// process of its own, so that a crash or a hang fails only the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include <fstream>
#include <random>
#include <semaphore>
#include <set>

#include "base/fatal_error.h"
#include "capture/archive_writer.h"
#include "qvx/archive_writer.h"
#include "qvx/create.h"
#include "qvx/directory_read_ahead.h"
#include "unit/archive_builder.h"
#include "unit/faulty_calls.h"
#include "unit/temporary_folder.h"

using namespace tarnwick::test;
using namespace tarnwick;
namespace fs = std::filesystem;

namespace {

constexpr unsigned hangs = 60;  // seconds
constexpr unsigned forever = 1000000;

enum Writer { byCapture, byQvx };

// As exit statuses.
enum Verdict { whole = 40, incomplete, refused, notReached, damaged, leaking, left, died };
using Verdicts = std::set<Verdict>;
const Verdicts isWhole{whole}, isMarked{incomplete}, isRefused{refused};
const Verdicts isEither{whole, refused}, anything{whole, incomplete, refused}, isStored{whole, incomplete};

// Of the key whose every byte is 0x11. Written out, so that a fault may meet the cipher library's first start, too.
const std::string recipientLine =
    "ecdsa-sha2-nistp256 AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBAIX5hfwtkQ5"
    "KCePlpmeaaI6TywVK99tbN9m5bgCgtTtGUp968uXcS0t2jyoWqh2Wlb0X8dYWZZS8ol8ZTBuV5Q=";

std::ptrdiff_t filesIn(const fs::path& folder) {
    return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

class ArchiveFaults : public testing::Test {
protected:
    ArchiveFaults() {
        std::string noise(1200000, '\0'), holes(300000, '\0');
        std::generate(noise.begin(), noise.end(), [dice = std::mt19937(7)]() mutable { return char(dice()); });
        ::setxattr(folder_.write("source/a", "content").c_str(), "user.note", "1", 1, 0);
        folder_.write("source/b", noise);
        folder_.write("source/c", "");
        std::ofstream(source_ / "d").seekp(300000) << "end";
        fs::create_hard_link(source_ / "b", source_ / "e");
        fs::create_symlink("a", source_ / "f");
        files_ = {source_, source_ / "a", source_ / "b", source_ / "c", source_ / "d", source_ / "e", source_ / "f"};
        expected_ = {"", "content", noise, "", holes + "end", noise, "a"};
        for (std::size_t i = 0; i < files_.size(); ++i) expected_[i].insert(0, files_[i].substr(1) + '=');
    }

    // What the writer said of the archive; a capture says nothing of incomplete files.
    std::optional<Creation> write(Writer writer) const {
        try {
            if (writer == byQvx) return *createArchive({{recipientLine}, archive_, "", {source_}, false});
            encryptFile(files_, recipientLine, archive_);
            return Creation::complete;
        } catch (const std::exception& error) {  // from qvx also the failed Result
            if (writer == byCapture && !dynamic_cast<const FatalError*>(&error)) throw;
            return std::nullopt;
        }
    }

    Verdict readBack() const {
        Scalar scalar{};
        scalar.fill(0x11);
        CheckingSink sink;
        std::vector<bool> marks;
        const auto mark = [&](auto, const IndexEntry& entry) { return marks.push_back(entry.incomplete), true; };
        auto source = openFileSource(FileDescriptor(::open(archive_.c_str(), O_RDONLY | O_CLOEXEC)));
        if (!source) return damaged;
        const auto reader =
            ArchiveReader::open(std::make_unique<ArchiveFile>(std::move(*source)), privateKeyFromScalar(scalar).get());
        if (!reader || !(*reader)->readAll(sink) || !(*reader)->list(mark)) return damaged;
        // The files in the folder were left out.
        if (sink.seen.size() == 1 && sink.seen[0] == expected_[0]) return incomplete;
        for (std::size_t i = 0; i < expected_.size(); ++i)
            if (sink.seen.size() != expected_.size() || (!marks[i] && sink.seen[i] != expected_[i])) return damaged;
        return std::ranges::count(marks, true) > 0 ? incomplete : whole;
    }
    // A capture writes to a new folder. qvx replaces an archive.
    static std::string before(Writer writer) { return writer == byQvx ? "old archive" : ""; }
    Verdict judge(Writer writer, const Fault& fault) const noexcept {
        const auto files = filesIn("/proc/self/fd");
        arm(fault);
        const auto made = write(writer);
        const bool reached = disarm() > fault.first;
        if (filesIn("/proc/self/fd") != files) return leaking;
        if (!made) return contentOf(archive_) == before(writer) && filesIn(out_) <= 1 ? refused : left;
        const Verdict verdict = readBack();
        if (writer == byQvx && (made == Creation::incomplete) != (verdict == incomplete)) return damaged;
        return verdict == whole && !reached ? notReached : verdict;
    }
    Verdict run(Writer writer, const Fault& fault) const {
        folder_.write("out/archive.qvx", before(writer));
        if (writer == byCapture) fs::remove(archive_);
        const pid_t child = fork();
        if (child == 0) {
            ::alarm(hangs);
            ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            ::dup2(STDOUT_FILENO, STDERR_FILENO);
            ::_exit(judge(writer, fault));
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? Verdict(WEXITSTATUS(status)) : died;
    }

    // The first call fails, the second, and so on, until there is none left to fail. After the first `exhaustive`
    // calls, which are the different ones, the steps grow.
    void expectAll(Writer writer, Fault fault, const Verdicts& expected, unsigned exhaustive = 8,
                   const std::function<void()>& tidyUp = {}) const {
        for (Verdict verdict{}; verdict != notReached; fault.first += 1 + fault.first / exhaustive) {
            verdict = run(writer, fault);
            EXPECT_TRUE(verdict == notReached || expected.contains(verdict))
                << fault.call << ' ' << fault.first << ", error " << fault.error << ": verdict " << verdict;
            if (tidyUp && verdict != notReached) tidyUp();
        }
        EXPECT_GT(fault.first, 1U) << fault.call << " is not called";
    }

    TemporaryFolder folder_;
    const fs::path source_ = folder_.path / "source", out_ = folder_.path / "out", archive_ = out_ / "archive.qvx";
    FilesList files_;
    Seen expected_;  // none: any will do
};

// A file that is there and cannot be read is marked; one that is gone, or resources that are, end in a refusal.
TEST_F(ArchiveFaults, PartialArchiveIsLeftWhenACallFails) {
    const std::tuple<const char*, int, unsigned, Verdicts> faults[] = {
        {"open", EMFILE, 1, isEither},       {"open", EACCES, 1, anything},    {"stat", EIO, 1, anything},
        {"read", EIO, 1, isStored},          {"read", EIO, forever, isMarked}, {"read", ESTALE, 1, isRefused},
        {"read", EINTR, 3, isWhole},         {"read", halved, 1, isWhole},     {"link", EIO, 1, isMarked},
        {"link", ENOENT, 1, isRefused},      {"write", EIO, 1, isRefused},     {"write", EINTR, 3, isWhole},
        {"write", halved, forever, isWhole}, {"seek", EIO, 1, isEither},       {"seek", EINVAL, 1, isWhole},
        {"mode", EPERM, 1, isRefused},       {"flags", ENOTTY, 1, isWhole},    {"xattr", EIO, forever, isMarked},
        {"close", EIO, 1, isWhole},          {"thread", EAGAIN, 1, isEither},
    };
    for (const auto writer : {byCapture, byQvx})
        for (const auto& [call, error, times, expected] : faults)
            expectAll(writer, {call, 0, times, error, {}}, expected);
    expectAll(byQvx, {"readdir", 0, 1, EIO, {}}, {incomplete});
    EXPECT_EQ(run(byQvx, {"sync", 0, 1, EIO, {}}), refused);  // the file
    EXPECT_EQ(run(byQvx, {"sync", 1, 1, EIO, {}}), left);     // the folder, after the archive was placed
    expectAll(byQvx, {"name", 0, 1, EIO, {}}, {refused});
}

#ifndef __SANITIZE_ADDRESS__  // it has an allocator of its own
// The first start of the cipher library alone allocates eight thousand times, and differs from any later one.
TEST_F(ArchiveFaults, ArchiveNeedsNoMemoryToFail) {
    for (const auto writer : {byCapture, byQvx}) expectAll(writer, {"memory", 0, 1, ENOMEM, {}}, isEither, 16);
    EXPECT_EQ(write(byCapture), Creation::complete);
    expectAll(byCapture, {"memory", 0, 1, ENOMEM, {}}, isEither, 256);
}
#endif

// Something else in the place of a file, at any moment between the listing and the last byte.
TEST_F(ArchiveFaults, NothingButTheListedFileIsStored) {
    const fs::path victim = source_ / "a", away = folder_.path / "away";
    const std::function<void()> changes[] = {
        [] {},
        [&] { ::mkfifo(victim.c_str(), 0600); },
        [&] { ::mknod(victim.c_str(), S_IFCHR | 0600, ::makedev(1, 5)); },
        [&] { fs::create_symlink("/etc/hostname", victim); },
        [&] { fs::create_directory(victim); },
    };
    const auto putBack = [&] {
        fs::remove_all(victim);
        fs::rename(away, victim);
    };
    for (const auto& change : changes) {
        const auto exchange = [&] { fs::rename(victim, away), change(); };
        for (const char* call : {"open", "read"}) expectAll(byCapture, {call, 0, 1, 0, exchange}, isEither, 8, putBack);
        // The listing reads no attributes.
        for (const char* call : {"xattr", "read"}) expectAll(byQvx, {call, 0, 1, 0, exchange}, isEither, 8, putBack);
    }
    expected_.clear();  // the folder is read meanwhile
    const auto rename = [&] { fs::rename(victim, away); };
    for (const char* call : {"readdir", "stat"}) expectAll(byQvx, {call, 0, 1, 0, rename}, isEither, 8, putBack);
}

// One of a size is read up to it, or to where it ends now; one that says it is empty, as pseudo files do, up to a
// limit.
TEST_F(ArchiveFaults, GrowingFilesAreNotReadForeverAndShrinkingOnesAreStored) {
    fs::remove(source_ / "e");
    files_ = {source_ / "a", source_ / "b", source_ / "c"};
    expected_ = {expected_[1].substr(0, expected_[1].size() - 3), expected_[2],
                 expected_[3] + std::string(1 << 20, 'g')};
    const auto change = [&] {
        fs::resize_file(source_ / "a", 4);
        for (const char* name : {"b", "c"}) std::ofstream(source_ / name, std::ios::app) << std::string(1 << 20, 'g');
    };
    EXPECT_EQ(run(byCapture, {"read", 0, forever, 0, change}), whole);
}

// One more than a thread reads. The count of calls shows who has read the directory, and how far.
TEST(DirectoryFaults, ThreadsReadAheadUpToALimitAndReportErrors) {
    const TemporaryFolder folder;
    constexpr unsigned files = DirectoryReadAhead::maxFiles + 1, others = 3;  // ".", ".." and the end
    for (unsigned i = 0; i < files; ++i) folder.write("below/" + std::to_string(i), "");
    constexpr unsigned first = 1 + others, byThread = 2 + files, byCaller = files + others;
    for (const auto& [error, calls] : {std::pair(0, first + byThread + byCaller), std::pair(EIO, first + 1)}) {
        DirectoryReadAhead ahead(2);
        std::counting_semaphore<> begun(0);
        arm({"readdir", first, forever, error, [&] { begun.release(); }});
        EXPECT_TRUE(ahead.read(folder.path));
        EXPECT_TRUE(begun.try_acquire_for(std::chrono::seconds(hangs))) << "no thread reads";
        const auto read = ahead.read(folder.path / "below");
        EXPECT_EQ(disarm(), calls);
        EXPECT_EQ(read ? 0 : read.error().code, error);
        EXPECT_EQ(read ? read->size() : 0, error == 0 ? files : 0);
    }
}

}  // namespace
