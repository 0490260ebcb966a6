#include "base/open_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "base/handle.h"
#include "temporary_folder.h"

using namespace tarnwick;

// Runs in a child process: this process must keep its limit.
static void reserve(rlim_t limit, std::size_t least, std::size_t most) {
    const rlimit limits{limit, limit};
    const auto lowest = [] { return FileDescriptor(open("/", O_PATH)).get(); };
    const int before = setrlimit(RLIMIT_NOFILE, &limits) == 0 ? lowest() : -1;
    reserveOpenFiles();
    const std::string status = contentOf("/proc/self/status");
    const std::size_t size = std::stoul(status.substr(status.find("FDSize:") + 7));
    _exit(lowest() == before && size >= least && size <= most ? 0 : 1);
}

TEST(OpenFiles, HaveSpaceInTheTableUpToTheLimit) {
    EXPECT_EXIT(reserve(20, 20, 256), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserve(600, 600, 1024), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserve(5000, 1024, 1024), testing::ExitedWithCode(0), "");
}
