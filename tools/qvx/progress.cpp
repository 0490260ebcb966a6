#include "progress.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <utility>

#include "progress_figures.h"

namespace tarnwick::qvx {

namespace {

using Clock = std::chrono::steady_clock;
using Time = Clock::rep;  // of the clock, so that it can be atomic

constexpr std::chrono::seconds delay{1};  // work that is shorter shows nothing
constexpr std::chrono::milliseconds lineStep{250};
constexpr std::chrono::seconds objectStep{1};
#ifdef SIGINFO
constexpr std::array requestSignals{SIGUSR1, SIGINFO};
#else
constexpr std::array requestSignals{SIGUSR1};
#endif
constexpr Time never = Clock::duration::max().count();

// What the command line says. Only one command is parsed.
struct Settings {
    bool quiet = false;
    bool verbose = false;
    std::string form;  // auto if it is empty
} settings;

// These are lock-free; a signal handler requires that of the first.
std::atomic<bool> requested = false;  // a line, by a signal
std::atomic<Time> due = never;        // when the next line or object is printed
std::atomic<std::uint64_t> done = 0;  // bytes

std::mutex mutex;  // of what follows, and of what is printed on the terminal
struct Work {
    std::string archive;
    std::optional<std::uint64_t> total;  // bytes
    std::size_t number = 0;              // of the archive
    std::size_t archives = 1;
    bool begun = false;
    std::optional<Clock::time_point> archiveBegan;  // none between archives
    bool sharesTerminal = false;
    bool showsLine = false;
} work;

bool writesObjects() { return settings.form == "json"; }

bool isOutputStored() {
    struct stat status {};
    return isatty(STDOUT_FILENO) == 0 && fstat(STDOUT_FILENO, &status) == 0 && !S_ISFIFO(status.st_mode) &&
           !S_ISSOCK(status.st_mode);
}

bool mayShowLine() {
    return !settings.quiet && isatty(STDERR_FILENO) == 1 && (!work.sharesTerminal || isOutputStored());
}

// A command in the background would write into the line that the user types.
bool isInForeground() {
    const pid_t group = tcgetpgrp(STDERR_FILENO);
    return group < 0 || group == getpgrp();
}

std::size_t terminalColumns() {
    constexpr std::size_t usual = 80;
    struct winsize size {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usual;
}

ProgressFigures figures() {
    const std::chrono::duration<double> elapsed = Clock::now() - *work.archiveBegan;
    // The header is read twice, and so is content that several entries have.
    const std::uint64_t shown = std::min(done.load(), work.total.value_or(done));
    return {work.archive, work.number, work.archives, shown, work.total, elapsed.count()};
}

void clearLine() {
    if (work.showsLine) std::fputs("\r\x1b[K", stderr);
    work.showsLine = false;
}

// The last column stays free: a terminal would begin a new line.
void showLine() {
    if (!isInForeground()) return;
    std::fprintf(stderr, "\r%s\x1b[K", figures().line(terminalColumns() - 1).c_str());
    work.showsLine = true;
}

void printMessage(const std::string& text) {
    clearLine();
    std::fprintf(stderr, "qvx: %s\n", text.c_str());
}

void printObject() { std::fprintf(stderr, "%s\n", figures().json().c_str()); }

void printRequested() {
    if (requested.exchange(false)) printMessage(figures().line());
}

bool isDue(Clock::time_point now) { return now.time_since_epoch().count() >= due; }

void setDue(Clock::time_point time) { due = time.time_since_epoch().count(); }

void printDue(Clock::time_point now) {
    if (writesObjects())
        printObject();
    else
        showLine();
    setDue(now + (writesObjects() ? Clock::duration(objectStep) : lineStep));
}

void request(int) { requested = true; }

}  // namespace

void declareQuiet(CommandOptions& command) { command.addFlag("-q,--quiet", settings.quiet, "no summary"); }

void declareProgress(CommandOptions& command, const ProgressNames& names) {
    command.addFlag(names.quiet, settings.quiet, names.quietHelp);
    command.addFlag(names.verbose, settings.verbose, "print figures at the end, and the names of entries written");
    command.addChoice("--progress", settings.form, {"auto", "json"}, "auto; or json, for one JSON object a second");
    command.exclude("--quiet", "--verbose");
}

bool isQuiet() { return settings.quiet; }

bool isVerbose() { return settings.verbose; }

void watchForProgressRequests() {
    struct sigaction action {};
    action.sa_handler = request;
    action.sa_flags = SA_RESTART;
    struct sigaction before {};
    for (const int signal : requestSignals)
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(signal, &action, nullptr);
}

void shareTerminal() {
    const std::lock_guard lock(mutex);
    work.sharesTerminal = true;
}

void beginArchive(std::size_t number, std::size_t count) {
    const std::lock_guard lock(mutex);
    work.number = number;
    work.archives = count;
}

void beginProgress(const std::string& archive) {
    const std::lock_guard lock(mutex);
    work.archive = archive;
    work.total.reset();
    done = 0;
    work.archiveBegan = Clock::now();
    if (std::exchange(work.begun, true)) return;
    if (writesObjects() || mayShowLine()) setDue(*work.archiveBegan + delay);
}

void expectBytes(const std::string& archive, std::uint64_t bytes) {
    const std::lock_guard lock(mutex);
    work.archive = archive;
    work.total = done + bytes;
}

void countBytes(std::uint64_t bytes) {
    done += bytes;
    checkProgress();
}

// While another thread prints, this one need not.
void checkProgress() {
    if (!requested && (due == never || !isDue(Clock::now()))) return;
    const std::unique_lock lock(mutex, std::try_to_lock);
    if (!lock || !work.archiveBegan) return;
    printRequested();
    if (const auto now = Clock::now(); isDue(now)) printDue(now);
}

void endProgress() {
    const std::lock_guard lock(mutex);
    clearLine();
    if (!work.archiveBegan) return;
    printRequested();
    if (writesObjects()) printObject();
    if (settings.verbose) printMessage(figures().summary());
    work.archiveBegan.reset();
}

ProgressPause::ProgressPause() : lock_(mutex) { clearLine(); }

}  // namespace tarnwick::qvx
