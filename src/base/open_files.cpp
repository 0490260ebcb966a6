#include "base/open_files.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>

#include "base/handle.h"

namespace tarnwick {

std::size_t maxOpenFiles() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

void reserveOpenFiles() {
    const auto count = static_cast<int>(std::clamp<std::size_t>(maxOpenFiles(), 1, 1024));
    const FileDescriptor any(::open("/", O_PATH | O_CLOEXEC));
    // The table grows for the number of the copy, and stays so when that is closed. A failure costs only time.
    const FileDescriptor highest(::fcntl(any.get(), F_DUPFD_CLOEXEC, count - 1));
}

}  // namespace tarnwick
