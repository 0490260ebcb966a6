#include "qvx/extract/disk_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <cstddef>
#include <map>
#include <set>
#include <sstream>

#include "qvx/format/access_list.h"
#include "unit/archive_builder.h"
#include "unit/peak_memory.h"
#include "unit/temporary_folder.h"

using namespace tarnwick;
using namespace tarnwick::qvx;
namespace fs = std::filesystem;

namespace {

Bytes bytesOf(std::string_view text) { return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}; }

// Entries are words: "PATH=TEXT" a file, "PATH>TARGET" a link, "PATH/" a directory, "PATH:N" a copy of entry N,
// "PATH#N" the same inode as entry N, "PATH~TEXT" an abandoned file, "PATH?TEXT" one whose end is not reached. TEXT may
// end with "@": a content that is too long for memory, with holes. "!" interrupts the extraction. The neighbour "out"
// of the destination must stay as it is.
struct Extraction {
    explicit Extraction(ExtractOptions options = {.keepIncomplete = true}) : wanted(std::move(options)) {}
    ~Extraction() {
        EXPECT_EQ(contentOf(out / "victim") + std::to_string(fs::hard_link_count(out / "victim")), "untouched1");
        EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 1);
    }
    void extract(const std::string& words) {
        std::istringstream stream(words);
        for (std::string word; stream >> word;) entry(word, word.find_first_of("=>:#~?"));
    }
    void entry(const std::string& word, std::size_t end) {
        if (word == "!") return void(stop = true);
        const char kind = end == std::string::npos ? '/' : word[end];
        head.number = contents.size();
        head.type = kind == '/' ? EntryType::directory : kind == '>' ? EntryType::link : EntryType::file;
        head.path = word.substr(0, std::min(end, word.size() - 1));
        EntryTail tail;
        if (kind == ':' || kind == '#') tail.contentOf = std::stoul(word.substr(end + 1));
        tail.hardLink = kind == '#';
        contents.push_back(tail.contentOf ? contents[*tail.contentOf] : word.substr(end + 1));
        const Digest digest = sha256(whole(contents.back()));
        if (tail.contentOf) tail.content = ContentCheck{whole(contents.back()).size(), checkOf(digest)};
        if (!tail.contentOf) tail.digest = digest;
        if (!sink.begin(head) || (kind != '/' && !tail.contentOf && !pass(contents.back(), sink))) return;
        if (kind == '~') return sink.abandon();
        const auto reread = [&](EntrySink& next) {
            return ++rereads > 0 && pass(contents.back(), next) ? Status() : Status(Error{"stopped"});
        };
        if (kind != '?') sink.finish(tail, reread);
    }
    static bool pass(const std::string& content, EntrySink& to) {
        if (!content.ends_with('@')) return to.data(bytesOf(content));
        return to.data(bytesOf(content)) && to.hole(99999) && to.data(bytesOf("@")) && to.hole(99999);
    }
    static std::string whole(const std::string& content) {
        const std::string zeros(99999, '\0');
        return content.ends_with('@') ? content + zeros + '@' + zeros : content;
    }
    // What is in the destination, in the words of the entries, but "PATH#TEXT" for a file that has two names.
    std::string tree() {
        sink.finishDirectories();
        std::set<std::string> words;
        for (const auto& each : fs::recursive_directory_iterator(in))
            words.insert(each.path().lexically_relative(in).string() + textOf(each));
        std::string joined;
        for (const auto& word : words) joined += (joined.empty() ? "" : " ") + word;
        return joined;
    }
    static std::string textOf(const fs::directory_entry& file) {
        if (file.is_symlink()) return '>' + fs::read_symlink(file).string();
        if (file.is_directory()) return "/";
        const std::string content = contentOf(file), tail = whole("@").substr(1);
        const std::string kind = file.hard_link_count() > 1 ? "#" : "=";
        return kind + (content.ends_with(tail) ? content.substr(0, content.size() - tail.size()) : content);
    }

    TemporaryFolder folder;
    const fs::path out = folder.write("out/victim", "untouched").parent_path(), in = folder.path / "in";
    const FileDescriptor root{(fs::create_directory(in), open(in.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))};
    EntryHead head;
    std::vector<std::string> contents;
    std::string problems;  // "PATH: TEXT", a line for each
    bool stop = false;
    const ExtractOptions wanted;
    unsigned rereads = 0;  // of contents in the archive
    DiskSink sink{root.get(),
                  {.keepIncomplete = wanted.keepIncomplete,
                   .limit = wanted.limit,
                   .report = [this](const Error& error) { problems += error.subject + ": " + error.text + '\n'; },
                   .interrupted = [this] { return stop; }}};
};

const std::string inTheWay = ": one of its folders exists as a link or a file; remove that and try again\n";
const std::string kept = ": the part that was read is kept as ";
const std::string longName(255, 'n'), cutName = std::string(240, 'n') + ".incomplete";
const std::string stopped = ": extraction stopped, because it would write more than the limit of 8192 bytes\n";

ExtractOptions upTo(std::uint64_t limit) { return {.keepIncomplete = true, .limit = limit}; }

void checkTrees() {
    struct {
        std::string name, before, archive, after;  // before: shell commands in the destination
        std::string problems{};
        ExtractOptions options{.keepIncomplete = true};
    } const cases[] = {
        {"FollowsLinkOfArchive", ":", "up>../out up/new=x", "up>../out", "up/new" + inTheWay},
        {"FollowsLinkOnDisk", "ln -s ../out d", "d/victim=x", "d>../out", "d/victim" + inTheWay},
        {"WritesThroughLink", "ln -s ../out/victim a", "a=mine", "a=mine"},
        {"KeepsLinkInPlaceOfDirectory", ":", "d>../out d/", "d/"},
        {"LinksBehindLink", ":", "a=untouched a>../out/victim b#0", "a>../out/victim b=untouched"},
        {"LinksCopies", ":", "a=1 b#0 c:0 d= e#3", "a#1 b#1 c=1 d# e#"},
        {"CopiesHolesWrong", ":", "a=1@ b#0 c:0", "a#1@ b#1@ c=1@"},
        {"CreatesLinkWithoutTarget", ":", "a>b c>", "a>b", "c: the link has no target\n"},
        {"BlamesLinkForLongName", ":", longName + "n/a=1", "", longName + "n/a: File name too long\n"},
        {"RestoresDirectoryThatWasReplaced", ":", "a/ a=x", "a=x"},
        {"UsesDirectoryThatWasReplaced",
         ":",
         "d/e/f~x d/e>../../out d/e/victim=x",
         "d/ d/e>../../out",
         "d/e/victim" + inTheWay,
         {}},
        {"ForgetsDirectoryOnWay", ":", "a/b/c=1 a/d=2 a/b/e/f=3 g=4 a/b/c/h=5",
         "a/ a/b/ a/b/c=1 a/b/e/ a/b/e/f=3 a/d=2 g=4", "a/b/c/h" + inTheWay},
        {"WritesIntoFileWithTwoNames", "echo -n old >a; ln a b", "a=new", "a=new b=old"},
        {"KeepsFifo", "mkfifo a", "a=new@", "a=new@"},
        {"KeepsEmptyDirectory", "mkdir a", "a=new", "a=new"},
        {"ReplacesFullDirectory", "mkdir -p a/b", "a=x@ c=x b:0", "a/ a/b/ b=x@ c=x", "a: Directory not empty\n"},
        {"CopiesFileThatWasReplaced", ":", "a=1 a=2 b#0 c:0", "a=2 b=1 c=1"},
        {"OverwritesIncomplete", "touch a.incomplete", "a~2@",
         "a.incomplete.1=2@ a.incomplete=", "a" + kept + "a.incomplete.1\n"},
        {"OverwritesIncompleteByEntry", ":", "a~1 b/ b/c~2@ a.incomplete=x b/c.incomplete/ b/c.incomplete.1>x",
         "a.incomplete.1=1 a.incomplete=x b/ b/c.incomplete.1>x b/c.incomplete.2=2@ b/c.incomplete/",
         "b/c" + kept + "c.incomplete.2\na" + kept + "a.incomplete.1\n"},
        {"OverwritesEntryByIncomplete", ":", "a.incomplete=x a~1 a~2",
         "a.incomplete.1=1 a.incomplete.2=2 a.incomplete=x",
         "a" + kept + "a.incomplete.1\na" + kept + "a.incomplete.2\n"},
        {"LinksFileWithInodeOfRemovedOne", ":", "a=1 a=2 c=3 a=4 a=5 b#0", "a=5 b=1 c=3"},
        {"MakesTooLongName", ":", longName + "~x", cutName + "=x", longName + kept + cutName + '\n'},
        {"LeavesTemporaryFile", "mkdir -p a/b", "a=x d/ d/a?x@", "a/ a/b/ d/", "a: Directory not empty\n"},
        {"MixesAbandonedFileIntoNext", ":", "a~1 b=2 c~3@ d=4 e~5@", "b=2 d=4", "", {}},
        {"WritesAfterInterruption", ":", "a=1 ! b=2 c=3@", ""},
        {"WritesDirectoriesPastLimit", ":", "a/ b/ c/", "a/ b/", stopped, upTo(8192)},
        {"WritesParentsPastLimit", ":", "a/b/c=1@", "a/ a/b/", stopped, upTo(8192)},
        {"WritesLinksPastLimit", ":", "a=1@ b#0 c>x", "a#1@ b#1@", stopped, upTo(8192)},
        {"WritesCopiesPastLimit", ":", "a=1 b:0 c:0", "a=1 b=1", stopped, upTo(8192)},
        {"WritesSmallContentsPastLimit", ":", "a=" + std::string(8193, 'x') + " b=1", "", stopped, upTo(8192)},
        {"WritesLargeContentsPastLimit", ":", "a=" + std::string(8192, 'x') + "@ b>x", "", stopped, upTo(8192)},
        {"CountsHoles", ":", "a=1@", "a=1@", "", upTo(4096)},
    };
    for (const auto& [name, before, archive, after, problems, options] : cases) {
        SCOPED_TRACE(name);
        Extraction run(options);
        ASSERT_EQ(std::system(("cd " + run.in.string() + "; " + before).c_str()), 0);
        run.extract(archive);
        EXPECT_EQ(run.tree(), after);
        EXPECT_EQ(run.problems, problems);
    }
}

TEST(DiskSink, LeavesRightTree) { checkTrees(); }

// For the rest of this process, as on a file system that cannot have them.
void denyUnnamedFiles() {
    constexpr unsigned tmpfile = O_TMPFILE & ~O_DIRECTORY;
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, tmpfile, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(filter), filter};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
    ASSERT_LT(open(".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600), 0);
}

TEST(DiskSink, LeavesWrongTreeWithoutUnnamedFiles) {
    const auto check = [] {
        denyUnnamedFiles();
        checkTrees();
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

// A file that replaces another, too.
TEST(DiskSink, ShowsFileThatIsNotVerified) {
    Extraction run;
    std::ofstream(run.in / "b") << "old";
    if (FileDescriptor unnamed{open(run.in.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600)}; !unnamed)
        GTEST_SKIP() << "the file system has no unnamed files";
    for (const std::string word : {"a?x@", "b?x@"}) {
        run.extract(word);
        EXPECT_EQ(std::distance(fs::directory_iterator(run.in), fs::directory_iterator()), 1) << word;
    }
    EXPECT_EQ(contentOf(run.in / "b"), "old");
}

// More folders, and deeper ones, than are kept open; files of one folder are not together.
TEST(DiskSink, WritesIntoWrongFolder) {
    Extraction run;
    std::string deep;
    for (int i = 0; i < 40; ++i) deep += "d" + std::to_string(i) + "/";
    std::map<std::string, std::string> expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = (i % 3 == 0 ? deep : "") + std::to_string(i % 150) + "/" + std::to_string(i);
        expected[name] = "content " + std::to_string(i);
        run.extract(name + "=" + std::to_string(i));
    }
    run.sink.finishDirectories();
    EXPECT_EQ(run.problems, "");
    for (const auto& [name, content] : expected) EXPECT_EQ("content " + contentOf(run.in / name), content);
}

// A file that is written again is no longer the same file as `b`.
TEST(DiskSink, WritesAgainOnlyWhatIsNotInPlace) {
    Extraction run;
    run.head.mode = 0600;
    run.head.modified = 1500000000;
    run.extract("a=1@ b#0 a:0 c#0 d:0");
    EXPECT_EQ(run.tree(), "a#1@ b#1@ c#1@ d=1@");
    struct stat status {};
    EXPECT_EQ(stat((run.in / "d").c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, 99999);  // the holes are twice as long
    run.head.mode = 0640;
    run.extract("a:0");
    EXPECT_EQ(run.tree(), "a=1@ b#1@ c#1@ d=1@");
    run.head.modified = 7;
    run.extract("a:0 d#0");
    EXPECT_EQ(run.rereads, 0U);
    fs::resize_file(run.in / "a", 1 << 20);  // by somebody else: it ends with a hole
    run.extract("e:0");
    EXPECT_EQ(run.rereads, 1U);
}

// Of the process, in all calls that read.
std::uint64_t bytesRead() {
    std::string name;
    std::uint64_t count = 0;
    std::ifstream("/proc/self/io") >> name >> count;
    EXPECT_EQ(name, "rchar:");
    return count;
}

TEST(DiskSink, ReadsContentForEachLinkOrRepetition) {
    Extraction run;
    run.head.modified = 7;
    run.extract("a=" + std::string(1 << 20, 'x') + '@');
    const auto before = bytesRead();
    for (unsigned i = 0; i < 50; ++i) run.extract('b' + std::to_string(i) + "#0 a:0");
    EXPECT_LT(bytesRead() - before, 1U << 20);
    EXPECT_EQ(fs::hard_link_count(run.in / "a"), 51U);
    EXPECT_EQ(fs::status(run.in / "a").permissions(), fs::perms(0600));  // the archive has none
    EXPECT_EQ(run.rereads, 0U);
}

TEST(DiskSink, WritesMoreAttributesThanLimit) {
    for (const std::size_t size : {94U, 95U}) {
        Extraction run({.limit = 4096 + 100});
        run.head.path = "a";
        run.sink.begin(run.head);
        run.sink.finish({.attributes = {{{"user.x", std::string(size, 'x')}}}}, {});
        EXPECT_EQ(run.tree(), "a=");
        EXPECT_EQ(run.sink.failed(), size == 95) << size;
    }
}

#if !defined __SANITIZE_ADDRESS__ && !defined __SANITIZE_THREAD__  // they have allocators of their own
// 46 MB of paths, of files and of directories with attributes.
TEST(DiskSink, KeepsPathsOrAttributesInMemory) {
    constexpr std::size_t count = 12000, maxKilobytes = 20480;
    Extraction run;
    std::string folder;
    for (unsigned i = 0; i < 15; ++i) folder += std::string(250, 'd') + '/';
    EntryTail tail;
    tail.attributes = {{"user.x", std::string(2000, 'x')}};
    EXPECT_LT(test::peakOf([&] {
                  for (std::size_t i = 0; i < count; ++i) {
                      const bool isFile = i % 2 == 0;
                      run.head.number = (i * 7919) % count;
                      run.head.type = isFile ? EntryType::file : EntryType::directory;
                      run.head.path = folder + std::to_string(i);
                      run.sink.begin(run.head);
                      run.sink.finish(isFile ? EntryTail{} : tail, {});
                  }
                  run.sink.finishDirectories();
              }),
              maxKilobytes);
    EXPECT_EQ(run.problems, "");
    EXPECT_EQ(getxattr((run.in / folder / "11999").c_str(), "user.x", nullptr, 0), 2000);
}
#endif

TEST(EntryPlaces, ForgetsEntries) {
    EntryPlaces places;
    constexpr std::uint64_t count = 99991, step = 31337;  // a prime, so that each number comes once
    for (std::uint64_t i = 0; i < count; ++i) places.add(2 * (i * step % count), i << 20);
    for (std::uint64_t i = 0; i < count; ++i) {
        ASSERT_EQ(places.find(2 * (i * step % count)), i << 20);
        ASSERT_FALSE(places.find(2 * i + 1));
    }
}

TEST(DiskSink, SearchesForFreeNameForever) {
    Extraction run;
    const std::string fill = "; touch a.incomplete; seq -f a.incomplete.%g 998 | xargs touch";
    ASSERT_EQ(std::system(("cd " + run.in.string() + fill).c_str()), 0);
    run.extract("a~1");
    EXPECT_EQ((run.tree(), run.problems), "a: File exists\n");
}

// Threads write the files, some at the same time; the last of the entries with one path must win.
TEST(DiskSink, ReordersEntriesThatConflict) {
    Extraction run;
    std::map<std::string, std::string> left;
    for (unsigned i = 0; i < 600; ++i) {
        const std::string name = "d" + std::to_string(i % 7) + "/f" + std::to_string(i % 230);
        run.extract(name + '=' + (left[name] = std::to_string(i)));
        if (i % 100 == 99) run.extract(name + "/below=x");
    }
    run.sink.finishDirectories();
    for (const auto& [name, content] : left) EXPECT_EQ(contentOf(run.in / name), content) << name;
    EXPECT_EQ(std::ranges::count(run.problems, '\n'), 6);
}

// All rights for everybody, and for a user by name.
void setList(const fs::path& file, const char* kind) {
    using enum AccessRule::Kind;
    const auto value = kernelAccessList({{owner, 7}, {user, 7, 7}, {owningGroup, 7}, {mask, 7}, {others, 7}});
    ASSERT_EQ(setxattr(file.c_str(), kind, value.data(), value.size(), 0), 0) << std::strerror(errno);
}

// The mask of a list is in the place of the permissions of the group.
TEST(DiskSink, GrantsByAccessListWhatUmaskWithholds) {
    const mode_t before = umask(027);
    Extraction run;
    umask(before);
    const auto file = run.folder.write("from", "content");
    setList(file, "system.posix_acl_access");
    EXPECT_TRUE((*test::openArchive(test::writeArchive(test::guardedList({file}))))->readAll(run.sink));
    run.sink.finishDirectories();
    const auto extracted = run.in / file.relative_path();
    EXPECT_EQ(fs::status(extracted).permissions(), fs::perms(0750));
    EXPECT_GT(getxattr(extracted.c_str(), "system.posix_acl_access", nullptr, 0), 0);
}

// The time is before 1970, and the default list of the destination would allow more than the mode.
TEST(DiskSink, LeavesInheritedAccessListOrOtherTime) {
    Extraction run;
    setList(run.in, "system.posix_acl_default");
    run.head.mode = 0540;
    run.head.modified = -1;
    run.extract("d/ d/small=1 d/large=1@");
    run.sink.finishDirectories();
    for (const auto* name : {"d", "d/small", "d/large"}) {
        const auto path = run.in / name;
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0540)) << name;
        EXPECT_EQ(std::chrono::file_clock::to_sys(fs::last_write_time(path)).time_since_epoch().count(), -1) << name;
        for (const auto* kind : {"system.posix_acl_access", "system.posix_acl_default"})
            EXPECT_LT(getxattr(path.c_str(), kind, nullptr, 0), 0) << name << kind;
    }
}

}  // namespace
