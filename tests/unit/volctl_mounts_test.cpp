#include "volctl/mounts.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "temporary_folder.h"

using namespace tarnwick;

namespace {

// The visible mounts of a mountinfo text as "type target" each.
std::vector<std::string> visible(const std::string& text) {
    const TemporaryFolder folder;
    const auto path = folder.path / "mountinfo";
    std::ofstream(path) << text;
    std::vector<std::string> names;
    for (const auto& mount : readVisibleMounts(path)) names.push_back(mount.type + " " + mount.target);
    return names;
}

using Names = std::vector<std::string>;

TEST(Mounts, AreVisibleUnlessSomethingCoversThem) {
    const std::string root = "20 1 8:1 / / rw - root a rw\n";
    const std::string below = "21 20 8:2 / /home rw - home a rw\n22 21 8:3 / /home/me rw - me a rw\n";
    EXPECT_EQ(visible(root + below), (Names{"root /", "home /home", "me /home/me"}));
    // Covered itself, and with it what stands below.
    EXPECT_EQ(visible(root + below + "23 21 8:4 / /home rw - new a rw\n"), (Names{"root /", "new /home"}));
    // Covered by a mount over a folder above.
    EXPECT_EQ(visible(root + "21 20 8:2 / /a/b rw - deep a rw\n22 20 8:3 / /a rw - cover a rw\n"),
              (Names{"root /", "cover /a"}));
    // Over the root itself.
    EXPECT_EQ(visible(root + below + "24 20 8:5 / / rw - fresh a rw\n"), (Names{"fresh /"}));
    // In a chroot whose root is no mount.
    EXPECT_EQ(visible("21 20 8:2 / /home rw - home a rw\n"), Names{"home /home"});
    // Mounted three deep on one path; only the last is seen.
    EXPECT_EQ(visible(root + "21 20 8:2 / /m rw - one a rw\n22 21 8:2 / /m rw - two a rw\n"
                             "23 22 8:2 / /m rw - three a rw\n"),
              (Names{"root /", "three /m"}));
}

TEST(Mounts, DecodeEscapesOnce) {
    EXPECT_EQ(visible("20 1 8:1 / / rw - ext4 a rw\n"
                      "21 20 8:2 / /a\\040b\\134040\\012c rw shared:1 master:2 - xfs a rw\n"),
              (Names{"ext4 /", "xfs /a b\\040\nc"}));
}

TEST(Mounts, RunningInACircleEnd) {
    EXPECT_EQ(visible("1 1 8:1 / / rw - root a rw\n2 3 8:1 / / rw - a a rw\n3 2 8:1 / / rw - b a rw\n"),
              Names{"root /"});
}

TEST(Mounts, ThatCannotBeReadThrow) { EXPECT_THROW(readVisibleMounts("/nonexistent/mountinfo"), std::runtime_error); }

TEST(Mounts, HoldPathsByWholeComponents) {
    const std::vector<Mount> mounts{
        {"/", "/", "", "root", 1}, {"/bo", "/", "", "bo", 2}, {"/boot", "/", "", "boot", 3}};
    EXPECT_EQ(mountHolding(mounts, "/boot/efi")->type, "boot");
    EXPECT_EQ(mountHolding(mounts, "/bo")->type, "bo");
    EXPECT_EQ(mountHolding(mounts, "/book")->type, "root");
    EXPECT_EQ(mountHolding({}, "/"), nullptr);
}

}  // namespace
