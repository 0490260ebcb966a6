// Writing an archive while calls of the system fail, and while the files change at the worst moment. Each case is a
// process of its own, so that a crash or a hang is a case that failed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include <fstream>
#include <random>
#include <set>

#include "base/fatal_error.h"
#include "capture/archive_writer.h"
#include "platform/archive_library.h"
#include "qvx/create.h"
#include "unit/archive_builder.h"
#include "unit/faulty_calls.h"
#include "unit/temporary_folder.h"

using namespace tarnwick;
using namespace tarnwick::test;
using namespace std::literals;
namespace fs = std::filesystem;

namespace {

constexpr unsigned hangs = 60;  // seconds
constexpr unsigned forever = 1000000;

enum Writer { byCapture, byQvx };

// As exit statuses. Known and not mended: libarchive, which reads attributes for us, ends the process with 1 when it
// finds no memory.
enum Verdict { endedByLibrary = 1, whole = 40, incomplete, refused, notReached, damaged, leaking, left, died };
const std::set<Verdict> isWhole{whole}, isIncomplete{incomplete}, isRefused{refused}, isEither{whole, refused},
    isStored{whole, incomplete}, isAny{whole, incomplete, refused};

// Of the key whose every byte is 0x11. Written out, so that a fault may meet the cipher library's first start, too.
const std::string recipientLine =
    "ecdsa-sha2-nistp256 AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBAIX5hfwtkQ5"
    "KCePlpmeaaI6TywVK99tbN9m5bgCgtTtGUp968uXcS0t2jyoWqh2Wlb0X8dYWZZS8ol8ZTBuV5Q=";

std::ptrdiff_t openFiles() { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); }

// Keeps what each entry says it lacks.
struct MarkSink : CheckingSink {
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        marks.push_back(tail.unreadable);
        return CheckingSink::finish(tail, content);
    }
    std::vector<std::optional<std::vector<Extent>>> marks;
};

class ArchiveFaults : public testing::Test {
public:
    ArchiveFaults() {
        std::string noise(1200000, '\0');
        std::generate(noise.begin(), noise.end(), [dice = std::mt19937(7)]() mutable { return char(dice()); });
        fs::create_directory(source_);
        std::ofstream(source_ / "a") << "content";
        ::setxattr((source_ / "a").c_str(), "user.note", "1", 1, 0);
        std::ofstream(source_ / "b") << noise;
        std::ofstream(source_ / "c").close();
        std::ofstream(source_ / "d").seekp(300000) << "end";
        fs::create_hard_link(source_ / "b", source_ / "e");
        fs::create_symlink("a", source_ / "f");
        files_ = {source_};
        for (const char* name : {"a", "b", "c", "d", "e", "f"}) files_.push_back(source_ / name);
        for (const auto& content : {""s, "content"s, noise, ""s, std::string(300000, '\0') + "end", noise, "a"s})
            expected_.push_back(files_[expected_.size()].string().substr(1) + '=' + content);
    }

    // What the writer said of the archive; a capture says nothing of incomplete files.
    Creation write(Writer writer) const {
        try {
            if (writer == byQvx) return createArchive({recipientLine, archive_, "", {source_}});
            encryptFile(files_, recipientLine, archive_);
            return Creation::complete;
        } catch (const std::exception& error) {  // qvx has others for its main()
            if (writer == byCapture && !dynamic_cast<const FatalError*>(&error)) throw;
            return Creation::failed;
        }
    }
    // All that an incomplete entry holds is as it was, but for the zeros that it owns up to, or a part at its end.
    bool matches(const MarkSink& sink) const {
        if (sink.seen.size() != expected_.size()) return false;
        for (std::size_t i = 0; i < expected_.size(); ++i) {
            if (!sink.marks[i] && sink.seen[i] != expected_[i]) return false;
            std::string wanted = expected_[i];
            const std::size_t content = files_[i].string().size();
            for (const Extent& extent : sink.marks[i].value_or(std::vector<Extent>()))
                std::fill_n(wanted.begin() + std::ptrdiff_t(content + extent.offset), extent.length, '\0');
            const bool cut = sink.marks[i] && sink.marks[i]->empty() && wanted.starts_with(sink.seen[i]);
            if (!cut && sink.seen[i] != wanted) return false;
        }
        return true;
    }
    Verdict readBack() const {
        Scalar scalar{};
        scalar.fill(0x11);
        ReadFault fault;
        MarkSink sink;
        auto file = ArchiveFile::open(FileDescriptor(::open(archive_.c_str(), O_RDONLY | O_CLOEXEC)), fault);
        const auto reader =
            file ? ArchiveReader::open(std::move(file), privateKeyFromScalar(scalar).get(), fault) : nullptr;
        const bool good = reader && reader->readAll(sink, fault);
        if (!good || !(expected_.empty() || sink.seen == orElse_ || matches(sink))) return damaged;
        const auto isMarked = [](const auto& mark) { return mark.has_value(); };
        return std::ranges::any_of(sink.marks, isMarked) ? incomplete : whole;
    }
    Verdict judge(Writer writer, const Fault& fault) const noexcept {
        const auto files = openFiles();
        arm(fault);
        const Creation made = write(writer);
        const bool reached = disarm() > fault.first;
        if (openFiles() != files) return leaking;
        if (made == Creation::failed) return fs::exists(archive_) ? left : refused;
        const Verdict verdict = readBack();
        if (writer == byQvx && (made == Creation::incomplete) != (verdict == incomplete)) return damaged;
        return verdict == whole && !reached ? notReached : verdict;
    }
    Verdict run(Writer writer, const Fault& fault) const {
        fs::remove(archive_);
        const pid_t child = fork();
        if (child == 0) {
            ::alarm(hangs);
            std::atexit([] { ::_exit(endedByLibrary); });  // destructors would race with the other threads
            ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            ::dup2(STDOUT_FILENO, STDERR_FILENO);
            ::_exit(judge(writer, fault));
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? Verdict(WEXITSTATUS(status)) : died;
    }

    // The first call fails, the second, and so on, until there is none left to fail; with a coarseness, in wider and
    // wider steps.
    void expectAll(
        Writer writer, Fault fault, const std::set<Verdict>& expected, const std::function<void()>& tidyUp = [] {},
        unsigned coarseness = forever) const {
        for (Verdict verdict{}; verdict != notReached; fault.first += 1 + fault.first / coarseness) {
            verdict = run(writer, fault);
            EXPECT_TRUE(verdict == notReached || expected.contains(verdict) ||
                        (verdict == endedByLibrary && fault.call == "memory"))
                << fault.call << ' ' << fault.first << ", error " << fault.error << " times " << fault.times
                << ": verdict " << verdict;
            if (verdict != notReached) tidyUp();
        }
    }

    TemporaryFolder folder_;
    const fs::path source_ = folder_.path / "source", archive_ = folder_.path / "archive.qvx";
    FilesList files_;
    Seen expected_, orElse_;  // none: any will do
};

// A file that is there and cannot be read is marked; one that is gone, or resources that are, end in a refusal.
TEST_F(ArchiveFaults, EndInAnArchiveOrInARefusalWithoutAFile) {
    const std::tuple<const char*, int, unsigned, std::set<Verdict>> faults[] = {
        {"open", EMFILE, 1, isEither},
        {"open", EACCES, 1, isAny},
        {"open", ELOOP, 1, isEither},
        {"stat", EIO, 1, isAny},
        {"read", EIO, 1, isStored},
        {"read", EIO, forever, isIncomplete},
        {"read", ESTALE, 1, isRefused},
        {"read", ENOMEM, 1, isRefused},
        {"read", EINTR, 3, isWhole},
        {"read", halved, 1, isWhole},
        {"link", EIO, 1, isIncomplete},
        {"link", ENOENT, 1, isRefused},
        {"write", EIO, 1, isRefused},
        {"write", ENOSPC, forever, isRefused},
        {"write", EINTR, 3, isWhole},
        {"write", halved, forever, isWhole},
        {"seek", EIO, 1, isEither},
        {"seek", EINVAL, 1, isWhole},
        {"mode", EPERM, 1, isRefused},
        {"flags", ENOTTY, 1, isWhole},
        {"xattr", EIO, forever, isIncomplete},
        {"close", EIO, 1, isWhole},
        {"thread", EAGAIN, 1, isEither},
        {"thread", EAGAIN, forever, isEither},
        {"readdir", EIO, 1, isRefused},
    };
    for (const auto& [call, error, times, expected] : faults)
        for (const auto writer : {byCapture, byQvx}) expectAll(writer, {call, 0, times, error, {}}, expected);
}

TEST_F(ArchiveFaults, OutOfMemoryIsARefusal) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer allocates";
#endif
    // The first start of the cipher library alone asks eight thousand times, and goes another way than any later one.
    const Fault fault{"memory", 0, 1, ENOMEM, {}};
    for (const auto writer : {byCapture, byQvx})
        expectAll(
            writer, fault, isEither, [] {}, 16);
    EXPECT_EQ(write(byCapture), Creation::complete);
    expectAll(byCapture, fault, isEither);
}

// Something else in the place of a file, or a part of it, at any moment between the listing and the last byte.
TEST_F(ArchiveFaults, FilesThatChangeAreStoredAsListedOrRefused) {
    const fs::path victim = source_ / "a", away = folder_.path / "away";
    const std::function<void()> changes[] = {
        [] {},
        [&] { ::mkfifo(victim.c_str(), 0600); },
        [&] { ::mknod(victim.c_str(), S_IFCHR | 0600, ::makedev(1, 5)); },
        [&] { fs::create_symlink("/etc/hostname", victim); },
        [&] { fs::create_directory(victim); },
        [&] { std::ofstream(victim) << "cont"; },
        [&] { fs::resize_file(away, 4); },
    };
    const auto putBack = [&] {
        fs::remove_all(victim);
        fs::rename(away, victim);
        std::ofstream(victim) << "content";
    };
    orElse_ = expected_;
    orElse_[1].resize(orElse_[1].size() - 3);
    for (const auto& change : changes) {
        const auto exchange = [&] {
            fs::rename(victim, away);
            change();
        };
        for (const char* call : {"open", "read"}) expectAll(byCapture, {call, 0, 1, 0, exchange}, isEither, putBack);
    }
    expected_.clear();  // the folder is read meanwhile
    const auto rename = [&] { fs::rename(victim, away); };
    for (const char* call : {"readdir", "stat"}) expectAll(byQvx, {call, 0, 1, 0, rename}, isEither, putBack);
}

// One of a size is read up to it; one that says it is empty, as pseudo files do, up to a limit.
TEST_F(ArchiveFaults, FilesThatGrowForEverEnd) {
    fs::remove(source_ / "e");
    files_ = {source_ / "b", source_ / "c", source_ / "a"};
    expected_ = {expected_[2], expected_[3] + std::string(1 << 20, 'g'), expected_[1]};
    const auto grow = [&] {
        for (const char* name : {"b", "c"}) std::ofstream(source_ / name, std::ios::app) << std::string(1 << 20, 'g');
    };
    EXPECT_EQ(run(byCapture, {"read", 0, forever, 0, grow}), whole);
}

// Reads of a file fail one after the other: the steps over it grow, so that there are few.
TEST_F(ArchiveFaults, ReadsOfADeadFileAreFew) {
    files_ = {source_ / "b"};
    expected_ = {expected_[2]};
    arm({"read", 0, forever, EIO, {}});
    EXPECT_EQ(write(byCapture), Creation::complete);
    EXPECT_LE(disarm(), 10U);
    EXPECT_EQ(readBack(), incomplete);
}

TEST_F(ArchiveFaults, WorkersAreAsManyAsTheCallerSets) {
    const auto context =
        std::unique_ptr<EncryptionContext, FreeWith<destroyEncryptionContext>>(createEncryptionContext(profileHpke));
    const Point point = *publicPointOf(recipient());
    setContextFieldBlob(context.get(), contextFieldRecipient, representationUncompressed,
                        reinterpret_cast<const std::byte*>(point.data()), point.size());
    setContextFieldUInt(context.get(), contextFieldCompression, compressionZstd);
    setContextFieldUInt(context.get(), contextFieldBlockSize, blockSize);
    const std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>> keys(fieldKeySetFromString("DAT"));
    const std::unique_ptr<PathList, FreeWith<destroyPathList>> list(
        pathListForPath("/", (source_ / "a").string()));  // one entry, which no second thread could read
    const auto threadsOf = [](const auto& work) {
        arm({"thread", 0, 0, 0, {}});
        work();
        return disarm();
    };
    for (const int workers : {1, 3, 11}) {
        const std::unique_ptr<ByteStream, FreeWith<closeByteStream>> file(
            openFileByteStream(archive_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        std::unique_ptr<ByteStream, FreeWith<closeByteStream>> sealed;
        const auto open = [&] {
            sealed.reset(openEncryptionOutputStream(file.get(), context.get(), streamFlags, workers));
        };
        EXPECT_EQ(threadsOf(open), unsigned(workers));
        EXPECT_FALSE(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, 0));
        const std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>> encoder(
            openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, workers));
        const auto writeWith = [&](int readers) {
            return writePathList(encoder.get(), list.get(), keys.get(), "/", nullptr, nullptr, 0, readers);
        };
        EXPECT_EQ(writeWith(workers + 1), -EINVAL);
        EXPECT_EQ(threadsOf([&] { EXPECT_EQ(writeWith(workers), 0); }), unsigned(workers));
        EXPECT_FALSE(openEncryptionOutputStream(file.get(), context.get(), streamFlags, 0));
    }
}

}  // namespace
