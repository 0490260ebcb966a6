#include "volctl/mounts.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "temporary_folder.h"

using namespace tarnwick;

namespace {

TEST(Mounts, AreVisibleUnlessSomethingCoversThem) {
    const std::string root = "20 1 8:1 / / rw - root a rw\n";
    const std::string below = root + "21 20 8:2 / /home rw - home a rw\n22 21 8:3 / /home/me rw - me a rw\n";
    const struct {
        const char* name;
        std::string mountinfo, visible;
    } cases[] = {
        {"nothing covered", below, "root:/ home:/home me:/home/me "},
        {"covered itself, and with it what stands below", below + "23 21 8:4 / /home rw - new a rw\n",
         "root:/ new:/home "},
        {"covered by a mount over a folder above",
         root + "21 20 8:2 / /a/b rw - deep a rw\n22 20 8:3 / /a rw - cover a rw\n", "root:/ cover:/a "},
        {"over the root itself", below + "24 20 8:5 / / rw - fresh a rw\n", "fresh:/ "},
        {"in a chroot whose root is no mount", "21 20 8:2 / /home rw - home a rw\n", "home:/home "},
        {"three deep on one path",
         root + "21 20 8:2 / /m rw - one a rw\n22 21 8:2 / /m rw - two a rw\n23 22 8:2 / /m rw - three a rw\n",
         "root:/ three:/m "},
        {"escapes are decoded once", root + "21 20 8:2 / /a\\040b\\134040\\012c rw shared:1 master:2 - xfs a rw\n",
         "root:/ xfs:/a b\\040\nc "},
        {"running in a circle", "1 1 8:1 / / rw - root a rw\n2 3 8:1 / / rw - a a rw\n3 2 8:1 / / rw - b a rw\n",
         "root:/ "},
    };
    const TemporaryFolder folder;
    for (const auto& [name, mountinfo, visible] : cases) {
        std::ofstream(folder.path / "mountinfo") << mountinfo;
        std::string found;
        for (const auto& mount : readVisibleMounts(folder.path / "mountinfo"))
            found += mount.type + ":" + mount.target + " ";
        EXPECT_EQ(found, visible) << name;
    }
    EXPECT_THROW(readVisibleMounts(folder.path / "absent"), std::runtime_error);
}

TEST(Mounts, HoldPathsByWholeComponents) {
    const std::vector<Mount> mounts{
        {"/", "/", "", "root", 1}, {"/bo", "/", "", "bo", 2}, {"/boot", "/", "", "boot", 3}};
    EXPECT_EQ(mountHolding(mounts, "/boot/efi")->type, "boot");
    EXPECT_EQ(mountHolding(mounts, "/book")->type, "root");
    EXPECT_EQ(mountHolding({}, "/"), nullptr);
}

}  // namespace
