#include "log/execution_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ext/stdio_filebuf.h>
#include <iomanip>
#include <iostream>
#include <locale>
#include <memory>
#include <sstream>
#include <thread>

#include "base/handle.h"
#include "base/quoted_path.h"
#include "base/random_name.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

// Attempts to create the log, because another user may create that name again and again.
constexpr int maxAttempts = 10;

// A file stream opens by path only, without O_EXCL. So the file is opened here, and the stream buffer gets its
// descriptor.
using LogBuffer = __gnu_cxx::stdio_filebuf<char>;

struct ExecutionLog {
    std::unique_ptr<LogBuffer> buffer;  // null: not open
    fs::path logFilePath;
    bool verboseConsole = false;
};

ExecutionLog& state() {
    static ExecutionLog instance;
    return instance;
}

void writeLine(std::ostream& stream, std::string_view prefix, std::string_view text) {
    stream << prefix << text << '\n' << std::flush;
}

void writeToFile(std::string_view prefix, std::string_view text) {
    auto* buffer = state().buffer.get();
    if (!buffer) return;
    for (const auto part : {prefix, text, std::string_view("\n")})
        buffer->sputn(part.data(), static_cast<std::streamsize>(part.size()));
    buffer->pubsync();
}

// With O_EXCL the file is new and owned by root: nobody else can write to it, and its name is not a link.
FileDescriptor createFile(const std::string& path) {
    return FileDescriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
}

// Exchanging two names is one step. If the name were freed first, another user could create it again before the log
// does.
FileDescriptor createInPlaceOf(const std::string& path) {
    const std::string unguessable = path + "." + randomDigits();
    FileDescriptor file = createFile(unguessable);
    if (!file || ::renameat2(AT_FDCWD, unguessable.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0) return file;
    const int error = errno;
    ::unlink(unguessable.c_str());
    errno = error;
    return {};
}

// For file systems that cannot exchange names.
bool renameExisting(const std::string& path) {
    return ::rename(path.c_str(), (path + "." + randomDigits()).c_str()) == 0;
}

// Every user can create files in /tmp, and the time stamp is easy to guess. A file that has the name is renamed, not
// removed: it may be the log of another run. If it vanishes between the two calls, the next attempt succeeds.
FileDescriptor createLogFile(const std::string& path) {
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        FileDescriptor file = createFile(path);
        if (file || errno != EEXIST) return file;
        file = createInPlaceOf(path);
        if (file || (errno != ENOENT && !(errno == EINVAL && renameExisting(path)))) return file;
    }
    return {};
}

}  // namespace

void logInfo(std::string_view text) {
    writeToFile("INFO: ", text);
    writeLine(std::cout, "", text);
}

void logWarning(std::string_view text) {
    writeToFile("WARNING: ", text);
    writeLine(std::cout, "WARNING: ", text);
}

void logTrace(std::string_view text) {
    writeToFile("TRACE: ", text);
    if (state().verboseConsole) writeLine(std::cout, "TRACE: ", text);
}

void setVerboseConsole(bool verbose) { state().verboseConsole = verbose; }

std::string makeTimeStamp() {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm calendar{};
    ::localtime_r(&now, &calendar);
    std::ostringstream stamp;
    stamp.imbue(std::locale::classic());
    stamp << std::put_time(&calendar, "%Y-%m-%d-%X");
    std::this_thread::sleep_for(std::chrono::nanoseconds(1'000'000'000));
    return stamp.str();
}

std::string openExecutionLog(const std::string& stamp) {
    auto& log = state();
    log.logFilePath = fs::path("/tmp") / ("tarnwick-" + stamp + ".log");
    FileDescriptor file = createLogFile(log.logFilePath);
    if (!file) {
        const int error = errno;
        // Programs that read these logs search for the doubled quote before " errno=".
        writeLine(std::cout, "WARNING: ",
                  "unable to open logfile at '" + quotedPath(log.logFilePath) + "'' errno=" + std::strerror(error));
        return {};
    }
    log.buffer = std::make_unique<LogBuffer>(file.release(), std::ios::out);
    return log.logFilePath;
}

std::string copyExecutionLog(const fs::path& folder) {
    auto& log = state();
    if (!log.buffer) return {};
    // Copies from the descriptor: another file may have the name of the log by now, if /tmp has no sticky bit.
    const FileDescriptor written(::fcntl(log.buffer->fd(), F_DUPFD_CLOEXEC, 0));
    log.buffer.reset();
    const fs::path target = folder / log.logFilePath.filename();
    std::error_code error;
    fs::copy_file("/proc/self/fd/" + std::to_string(written.get()), target, fs::copy_options::none, error);
    if (error) {
        logWarning("error " + std::to_string(error.value()) + " when copying execution summary to destination volume.");
        return {};
    }
    return target;
}

}  // namespace tarnwick
