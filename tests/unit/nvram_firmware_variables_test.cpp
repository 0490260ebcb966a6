#include "nvram/firmware_variables.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>

#include "nvram/withheld.h"
#include "temporary_folder.h"

using namespace tarnwick;

namespace {

const std::string guid = "-8be4df61-93ca-11d2-aa0d-00e098032b8c";

struct FirmwareVariables : testing::Test {
    void variable(const std::string& name, const std::string& value) { folder_.write(name + guid, "\7\7\7\7" + value); }

    // The lines without the GUID, then the first letter of each file that was not dumped.
    std::string dump(const ReadCall& read = ::read) {
        std::string text;
        const auto add = [&](const std::string& line) { text += std::regex_replace(line, std::regex(guid), ""); };
        const auto dump = dumpVariables(folder_.path, add, read);
        for (const auto& problem : dump.problems) text += "!" + problem.subject.substr(0, 1);
        return text;
    }

    TemporaryFolder folder_;
};

TEST_F(FirmwareVariables, SortsEscapesAndSkipsOtherFiles) {
    variable("Name", std::string("a\0%\t\x7f\xff~", 7));
    variable("B\n\x1b-%", "");
    const auto noDash = "D" + guid.substr(0, 24) + "_" + guid.substr(25), noHex = "H" + guid.substr(0, 36) + "g";
    for (const auto& name : {noDash, noHex, guid, guid.substr(1)}) folder_.write(name, "\7\7\7\7");
    folder_.write("NoAttributes" + guid, "\7\7\7");
    std::filesystem::create_symlink("/etc/hostname", folder_.path / ("Link" + guid));
    ASSERT_EQ(mkfifo((folder_.path / ("Pipe" + guid)).c_str(), 0600), 0);
    EXPECT_EQ(dump(), "B%0a%1b-%25\t\nName\ta%00%25%09%7f%ff~\n!-!8!D!H!L!N!P");
}

TEST_F(FirmwareVariables, ReadsAgainOnlyAfterInterruptions) {
    for (const auto* name : {"A", "B"}) variable(name, "value");
    int interrupted = 10;
    const auto read = [&](int descriptor, void* buffer, std::size_t size) {
        return interrupted-- > 0 ? (errno = EINTR, -1) : ::read(descriptor, buffer, size);
    };
    EXPECT_EQ(dump(read), "A\tvalue\nB\tvalue\n");
    interrupted = 11;
    EXPECT_EQ(dump(read), "B\tvalue\n!A");
}

TEST_F(FirmwareVariables, MarksWhatItCuts) {
    const std::string longest(maxValueBytes, 'v');
    variable("A", longest);
    variable("B", longest + "more");
    EXPECT_EQ(dump(), "A\t" + longest + "\nB\t" + longest + "%[cut: 65536 of more than 65536 bytes]\n");
    for (int i = 10; i < 90; ++i) variable("C" + std::to_string(i), longest);
    const std::regex cuts("v%.cut: [0-9]+ of 65536 bytes\\]\n%.cut: [0-9]+ more variables\\]\n$");
    const std::string text = dump();
    ASSERT_GT(text.size(), 4000000U);
    EXPECT_TRUE(std::regex_search(text.end() - 200, text.end(), cuts)) << text.substr(text.size() - 200);
}

TEST(Withheld, SecretsAndNothingElse) {
    for (const auto* name : {"HDD_Pwd", "UserPw", "Product-Key", "MokAuth"}) EXPECT_TRUE(whySecret(name)) << name;
    for (const auto* name : {"SecureBoot", "PK", "db", "PwState", "MokAuths"}) EXPECT_FALSE(whySecret(name)) << name;
}

}  // namespace
