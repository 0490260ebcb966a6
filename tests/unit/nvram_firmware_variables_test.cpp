#include "nvram/firmware_variables.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <regex>

#include "nvram/withheld.h"
#include "temporary_folder.h"

using namespace tarnwick;
using namespace std::literals;

namespace {

const std::string guid = "-8be4df61-93ca-11d2-aa0d-00e098032b8c";
const std::string longest(maxValueBytes, 'v');

class FirmwareVariables : public testing::Test {
protected:
    void file(const std::string& name, const std::string& bytes) { std::ofstream(folder_.path / name) << bytes; }
    void variable(const std::string& name, const std::string& value) { file(name + guid, "\x07\0\0\0"s + value); }

    // The lines, then the names of the files that were not dumped; without the GUID.
    std::string dump(const ReadCall& read = ::read) {
        std::string text;
        const auto dump = dumpVariables(
            folder_.path, [&](const std::string& line) { text += line; }, read);
        for (const auto& problem : dump.problems) text += "!" + problem.subject;
        return std::regex_replace(text, std::regex(guid), "");
    }

    TemporaryFolder folder_;
};

TEST_F(FirmwareVariables, SortsEscapesAndSkipsOtherFiles) {
    variable("Name", "a\0%\t\x7f\xff~"s);
    variable("B\n\x1b-%", "");
    for (const auto& name : {"A-8be4df61-93ca-11d2-aa0d_00e098032b8c"s, "G" + guid.substr(0, 36) + "g", guid})
        file(name, "\x07\0\0\0"s);
    file("NoAttributes" + guid, "\x07\0\0"s);
    std::filesystem::create_symlink("/etc/hostname", folder_.path / ("Link" + guid));
    ASSERT_EQ(mkfifo((folder_.path / ("Pipe" + guid)).c_str(), 0600), 0);
    EXPECT_EQ(dump(),
              "B%0a%1b-%25\t\nName\ta%00%25%09%7f%ff~\n!!A-8be4df61-93ca-11d2-aa0d_00e098032b8c"
              "!G-8be4df61-93ca-11d2-aa0d-00e098032b8g!Link!NoAttributes!Pipe");
}

TEST_F(FirmwareVariables, ReadsAgainOnlyAfterInterruptions) {
    variable("A", "first");
    variable("B", "second");
    int calls = 0, interrupted = 3;
    const auto read = [&](int descriptor, void* buffer, std::size_t size) {
        errno = EINTR;
        return ++calls <= interrupted ? -1 : ::read(descriptor, buffer, size);
    };
    EXPECT_EQ(dump(read), "A\tfirst\nB\tsecond\n");
    EXPECT_EQ(calls, 5);
    calls = 0, interrupted = 11;
    EXPECT_EQ(dump(read), "B\tsecond\n!A");
}

TEST_F(FirmwareVariables, MarksWhatItCuts) {
    variable("A", longest);
    variable("B", longest + "more");
    EXPECT_EQ(dump(), "A\t" + longest + "\nB\t" + longest + "%[cut: 65536 of more than 65536 bytes]\n");
    for (int i = 10; i < 90; ++i) variable("C" + std::to_string(i), longest);
    EXPECT_TRUE(
        std::regex_search(dump(), std::regex("v%.cut: [0-9]+ of 65536 bytes\\]\n%.cut: [0-9]+ more variables\\]\n$")));
}

TEST(Withheld, SecretsAndNothingElse) {
    for (const auto* name : {"AdminPassword", "HDD_Pwd", "UserPw", "LoaderSystemToken", "Product-Key", "MokAuth"})
        EXPECT_TRUE(whySecret(name)) << name;
    for (const auto* name : {"BootOrder", "Boot0001", "SecureBoot", "PK", "db", "KEK", "MokList", "LoaderInfo"})
        EXPECT_FALSE(whySecret(name)) << name;
}

}  // namespace
