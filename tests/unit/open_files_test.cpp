#include "base/open_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "base/handle.h"
#include "temporary_folder.h"

using namespace tarnwick;

namespace {

std::size_t tableSize() {
    const std::string status = contentOf("/proc/self/status"), field = "\nFDSize:";
    return std::stoul(status.substr(status.find(field) + field.size()));
}

// The child can have a limit and a table of its own.
void reserveWithLimit(int limit, std::size_t least, std::size_t most) {
    rlimit limits{};
    limits.rlim_cur = limits.rlim_max = static_cast<rlim_t>(limit);
    setrlimit(RLIMIT_NOFILE, &limits);
    const int lowest = FileDescriptor(open("/", O_PATH)).get();
    reserveOpenFiles();
    const bool noneIsLeft = FileDescriptor(open("/", O_PATH)).get() == lowest && fcntl(limit - 1, F_GETFD) < 0;
    _exit(noneIsLeft && tableSize() >= least && tableSize() <= most ? 0 : 1);
}

TEST(OpenFiles, HaveSpaceInTheTableUpToTheLimit) {
    EXPECT_EXIT(reserveWithLimit(600, 600, 1024), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserveWithLimit(1024, 1024, 1024), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserveWithLimit(5000, 1024, 1024), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserveWithLimit(20, 20, 256), testing::ExitedWithCode(0), "");
}

}  // namespace
