// Names, secrets and folders are for the program test.
#include "nvram/firmware_variables.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "nvram/withheld.h"
#include "temporary_folder.h"

using namespace tarnwick;
namespace fs = std::filesystem;
using namespace std::literals;

namespace {

const std::string guid = "-8be4df61-93ca-11d2-aa0d-00e098032b8c";

class FirmwareVariables : public testing::Test {
protected:
    void file(const std::string& name, const std::string& bytes) { std::ofstream(folder_.path / name) << bytes; }
    void variable(const std::string& name, const std::string& value) {
        file(name + guid, std::string("\x07\0\0\0", 4) + value);
    }
    std::string dump(const ReadCall& read = ::read) {
        std::string text;
        const auto add = [&](const std::string& line) { text += line; };
        problems_ = dumpVariables(folder_.path, add, read).problems.size();
        for (auto at = text.find(guid); at != std::string::npos; at = text.find(guid)) text.erase(at, guid.size());
        return text;
    }

    TemporaryFolder folder_;
    std::size_t problems_ = 0;
};

TEST_F(FirmwareVariables, AreShownInOrderAndThoseThatAreNoneDoNotHideThem) {
    variable("Name", std::string("a\0%\t\x7f\xff~", 7));
    variable("B\n\x1b-%", "");
    for (const auto& name : {"Short" + guid, guid.substr(1), guid, "Wrong-8be4df61-93ca-11d2-aa0d_00e098032b8c"s})
        file(name, name == "Short" + guid ? "\x07" : "\x07\x07\x07\x07");
    fs::create_directory(folder_.path / ("Folder" + guid));
    fs::create_symlink("/etc/hostname", folder_.path / ("Link" + guid));
    ASSERT_EQ(mkfifo((folder_.path / ("Pipe" + guid)).c_str(), 0600), 0);
    EXPECT_EQ(dump(), "B%0a%1b-%25\t\nName\ta%00%25%09%7f%ff~\n");
    EXPECT_EQ(problems_, 7U);
}

TEST_F(FirmwareVariables, AreReadOnceAndAgainOnlyWhenInterrupted) {
    variable("A", "first");
    variable("B", "second");
    int calls = 0, interrupted = 3;
    const auto read = [&](int descriptor, void* buffer, std::size_t size) -> ssize_t {
        ++calls;
        errno = EINTR;
        return interrupted-- > 0 ? -1 : ::read(descriptor, buffer, size);
    };
    EXPECT_EQ(dump(read), "A\tfirst\nB\tsecond\n");
    EXPECT_EQ(calls, 5);
    interrupted = 11;
    EXPECT_EQ(dump(read), "B\tsecond\n");
    EXPECT_EQ(problems_, 1U);
}

TEST_F(FirmwareVariables, AreCutWithAMark) {
    const std::string fits(variableLimit, 'v');
    variable("A", fits);
    variable("B", fits + "more");
    EXPECT_EQ(dump(), "A\t" + fits + "\nB\t" + fits + "%[cut: 65536 of more than 65536 bytes]\n");
    for (int i = 10; i < 90; ++i) variable("C" + std::to_string(i), fits);
    const auto text = dump();
    EXPECT_TRUE(text.size() < totalLimit + 6400 && text.ends_with(" more variables]\n"));
    EXPECT_NE(text.find(" of 65536 bytes]\n"), std::string::npos);
}

TEST(Withheld, KnowsSecretsAndLeavesTheRest) {
    for (const auto* name : {"AdminPassword", "HDD_Pwd", "UserPw", "LoaderSystemToken", "Product-Key", "MokAuth"})
        EXPECT_FALSE(secretIn(name).empty()) << name;
    for (const auto* name : {"BootOrder", "Boot0001", "SecureBoot", "PK", "db", "KEK", "MokList", "LoaderInfo"})
        EXPECT_TRUE(secretIn(name).empty()) << name;
}

}  // namespace
