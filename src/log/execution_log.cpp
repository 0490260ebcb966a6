#include "log/execution_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

// A file stream can only be told a path, never "not through a link", so the file is opened by hand and the stream
// buffer of the library is laid over its descriptor.
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
    if (!state().buffer) return;
    std::ostream file(state().buffer.get());
    writeLine(file, prefix, text);
}

// Root writes into a folder where everybody may plant names: no link, symbolic or hard, and no FIFO may lead it
// elsewhere, and what somebody else owns could be altered, or swapped before it is copied. So nothing is truncated
// before it is known to be our own.
FileDescriptor openLogFile(const fs::path& path) {
    FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return {};
    const bool ours = S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid();
    if (ours && ::ftruncate(file.get(), 0) == 0) return file;
    if (!ours) errno = EINVAL;
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
    FileDescriptor file = openLogFile(log.logFilePath);
    if (!file) {
        const int error = errno;
        // The doubled quote before " errno=" is what readers of these logs search for.
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
    log.buffer.reset();
    const fs::path target = folder / log.logFilePath.filename();
    std::error_code error;
    fs::copy_file(log.logFilePath, target, fs::copy_options::none, error);
    if (error) {
        logWarning("error " + std::to_string(error.value()) + " when copying execution summary to destination volume.");
        return {};
    }
    return target;
}

}  // namespace tarnwick
