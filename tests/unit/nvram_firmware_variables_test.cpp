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

namespace {

const std::string guid = "-8be4df61-93ca-11d2-aa0d-00e098032b8c";
const std::string attributes("\x07\0\0\0", 4);

class FirmwareVariables : public testing::Test {
protected:
    void variable(const std::string& name, const std::string& value) { file(name + guid, attributes + value); }
    void file(const std::string& name, const std::string& bytes) { std::ofstream(folder_ / name) << bytes; }

    std::string dump(const ReadCall& read = ::read) {
        std::string text;
        problems_ = dumpVariables(
                        folder_, [&](const std::string& line) { text += line; }, read)
                        .problems;
        for (auto at = text.find(guid); at != std::string::npos; at = text.find(guid)) text.erase(at, guid.size());
        return text;
    }

    TemporaryFolder temporary_;
    const fs::path folder_ = temporary_.path;
    std::vector<std::string> problems_;
};

TEST_F(FirmwareVariables, AreShownInOrderAndThoseThatAreNoneDoNotHideThem) {
    variable("Name", std::string("a\0%\t\x7f\xff~", 7));
    variable("B\n\x1b-%", "");
    for (std::size_t size = 0; size < 4; ++size)
        file("Short" + std::to_string(size) + guid, attributes.substr(0, size));
    for (const auto& name : {guid.substr(1), guid, std::string("Wrong-8be4df61-93ca-11d2-aa0d_00e098032b8c")})
        file(name, attributes);
    fs::create_directory(folder_ / ("Folder" + guid));
    fs::create_symlink("/etc/hostname", folder_ / ("Link" + guid));
    ASSERT_EQ(mkfifo((folder_ / ("Pipe" + guid)).c_str(), 0600), 0);
    EXPECT_EQ(dump(), "B%0a%1b-%25\t\nName\ta%00%25%09%7f%ff~\n");
    EXPECT_EQ(problems_.size(), 10U);
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
    EXPECT_EQ(problems_, std::vector<std::string>{"A" + guid + ": Interrupted system call"});
}

TEST_F(FirmwareVariables, AreCutWithAMark) {
    const std::string fits(variableLimit, 'v');
    variable("A", fits);
    variable("B", fits + "more");
    EXPECT_EQ(dump(), "A\t" + fits + "\nB\t" + fits + "%[cut: 65536 of more than 65536 bytes]\n");
    for (int i = 10; i < 90; ++i) variable("C" + std::to_string(i), fits);
    const auto text = dump();
    EXPECT_LT(text.size(), totalLimit + 64 * 100);
    EXPECT_TRUE(text.ends_with(" more variables]\n"));
    EXPECT_NE(text.find(" of 65536 bytes]\n"), std::string::npos);
}

TEST(Withheld, KnowsSecretsAndLeavesTheRest) {
    for (const auto* name : {"AdminPassword", "HDD_Pwd", "UserPw", "HddPassWord1", "LoaderSystemToken", "RandomSeed",
                             "DigitalProductId", "Product-Key", "MokPWStore", "MokAuth", "WiFiProfile", "CHAPSecret"})
        EXPECT_FALSE(secretIn(name).empty()) << name;
    for (const auto* name : {"BootOrder", "Boot0001", "SecureBoot", "PK", "db", "KEK", "Timeout", "OsIndications",
                             "MokList", "PlatformLang", "LoaderInfo", "ConOut"})
        EXPECT_TRUE(secretIn(name).empty()) << name;
}

}  // namespace
