#include "background.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "base/handle.h"

namespace tarnwick::qvx {

namespace {

bool readByte(const FileDescriptor& pipe) {
    char byte = 0;
    ssize_t count = 0;
    do count = read(pipe.get(), &byte, 1);
    while (count < 0 && errno == EINTR);
    return count == 1;
}

CommandResult waitForWork(pid_t child, const FileDescriptor& ready) {
    if (readByte(ready)) return exitSuccess;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status)) return CommandError{{"the process ended unexpectedly"}};
    return static_cast<ExitStatus>(WEXITSTATUS(status));
}

void leaveTerminal(const FileDescriptor& ready) {
    const FileDescriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    setsid();
    if (chdir("/") != 0) report(systemError(errno, "/"));
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) static_cast<void>(dup2(null.get(), stream));
    while (write(ready.get(), "", 1) < 0 && errno == EINTR) {
    }
}

}  // namespace

CommandResult runInBackground(const BackgroundWork& work) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return CommandError{systemError(errno)};
    FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = fork();
    if (child < 0) return CommandError{systemError(errno)};
    if (child > 0) {
        writing = FileDescriptor();
        return waitForWork(child, reading);
    }
    reading = FileDescriptor();
    return work([&] { leaveTerminal(writing); });
}

}  // namespace tarnwick::qvx
