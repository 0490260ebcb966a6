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

const std::string guid = "8be4df61-93ca-11d2-aa0d-00e098032b8c";
const std::string attributes("\x07\0\0\0", 4);

class FirmwareVariables : public testing::Test {
protected:
    void variable(const std::string& name, const std::string& value) { file(name + "-" + guid, attributes + value); }
    void file(const std::string& name, const std::string& bytes) { std::ofstream(folder_ / name) << bytes; }

    std::string dump(const ReadCall& read = ::read) {
        std::string text;
        result_ = dumpVariables(
            folder_, [&](const std::string& line) { text += line; }, read);
        return text;
    }

    static std::string line(const std::string& name, const std::string& value) {
        return name + "-" + guid + "\t" + value + "\n";
    }

    TemporaryFolder temporary_;
    const fs::path folder_ = temporary_.path;
    VariableDump result_;
};

TEST_F(FirmwareVariables, AreShownInOrderWithForeignBytesEscaped) {
    variable("Name", std::string("a\0%\t\x7f\xff~", 7));
    variable("B\n\x1b-%", "");
    file("x-" + guid + "-" + guid, attributes + "twice");
    EXPECT_EQ(dump(), line("B%0a%1b-%25", "") + line("Name", "a%00%25%09%7f%ff~") + line("x-" + guid, "twice"));
    EXPECT_EQ(result_.shown, 3U);
    EXPECT_TRUE(result_.problems.empty());
}

TEST_F(FirmwareVariables, ThatAreNoneDoNotHideTheOthers) {
    variable("Good", "1");
    for (std::size_t size = 0; size < 4; ++size)
        file("Short" + std::to_string(size) + "-" + guid, attributes.substr(0, size));
    file("nodash" + guid, attributes);
    file("-" + guid, attributes);
    file("Wrong-8be4df61-93ca-11d2-aa0d_00e098032b8c", attributes);
    fs::create_directory(folder_ / ("Folder-" + guid));
    fs::create_symlink("/etc/hostname", folder_ / ("Link-" + guid));
    ASSERT_EQ(mkfifo((folder_ / ("Pipe-" + guid)).c_str(), 0600), 0);
    EXPECT_EQ(dump(), line("Good", "1"));
    EXPECT_EQ(result_.problems.size(), 10U);
}

TEST_F(FirmwareVariables, AreReadOnceAndAgainOnlyWhenInterrupted) {
    variable("A", "first");
    variable("B", "second");
    int calls = 0;
    int interrupted = 3;
    const auto read = [&](int descriptor, void* buffer, std::size_t size) -> ssize_t {
        ++calls;
        errno = EINTR;
        return interrupted-- > 0 ? -1 : ::read(descriptor, buffer, size);
    };
    EXPECT_EQ(dump(read), line("A", "first") + line("B", "second"));
    EXPECT_EQ(calls, 5);
    interrupted = 11;  // A is given up, B is read
    EXPECT_EQ(dump(read), line("B", "second"));
    EXPECT_EQ(result_.problems, std::vector<std::string>{"A-" + guid + ": Interrupted system call"});
}

TEST_F(FirmwareVariables, AreCutWithAMark) {
    const std::string fits(variableLimit, 'v');
    variable("A", fits);
    variable("B", fits + "more");
    EXPECT_EQ(dump(), line("A", fits) + line("B", fits + "%[cut: 65536 of more than 65536 bytes]"));
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
