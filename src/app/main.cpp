#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>

#include "app/arguments.h"
#include "app/capture_run.h"
#include "app/command_path.h"
#include "base/open_files.h"
#include "base/quoted_path.h"
#include "base/run_options.h"
#include "config/config_file.h"
#include "log/command_runner.h"
#include "log/execution_log.h"
#include "platform/internal_policies.h"
#include "qvx/crypto/openssl_environment.h"
#include "store/capture_store.h"
#include "store/capture_summary.h"

namespace tarnwick {

namespace {

constexpr int notRoot = -1;  // 255 for the shell

constexpr auto introduction =
    "\nThis utility is used to enable troubleshooting of returned Vexlor hardware by preserving diagnostic data that "
    "is potentially useful to Vexlor.\n\n"
    "Please note the following:\n"
    " - The captured data is copied to a special disk location where it can be accessed by Vexlor engineers after "
    "this system is returned.\n"
    " - The captured data is stored in an encrypted archive.\n"
    " - Vexlor attempts to minimize exposure to personal information both at the time of capture and when utilized "
    "later by Vexlor.\n"
    " - The captured data as well as a detailed log can be reviewed by the user by examining the execution log.\n\n";

constexpr auto completion =
    "\nCapture execution is complete! You may view a detailed log of the capture process at the path shown above.\n\n"
    "If you wish to remove all captured data from this system you may issue the command 'tarnwick --cleanup'\n\n";

// The next file that is opened gets the number of a closed standard stream. If that file were the execution log or the
// archive, console output would be written to it.
void fillStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        if (::fcntl(stream, F_GETFD) < 0) static_cast<void>(::open("/dev/null", O_RDWR));
}

// The output of the commands must not depend on the locale of the caller. In a UTF-8 locale the dot of a regular
// expression does not match bytes that are not UTF-8, so files with such names would be missing from the capture.
void fixEnvironmentOfCommands() {
    ::setenv("LC_ALL", "C", 1);
    const char* inherited = ::getenv("PATH");
    ::setenv("PATH", completeCommandPath(inherited ? inherited : "").c_str(), 1);
}

// If SIGCHLD were ignored, the exit status of commands would be lost. With a loose umask every user could write to the
// capture store.
void fixInheritedSettings() {
    ::signal(SIGCHLD, SIG_DFL);
    ::umask(022);
}

void printIntroduction() { std::cout << introduction; }

void printCompletion() { std::cout << completion; }

int printUsage() {
    std::string manual;
    const auto status = runCommand("man tarnwick", manual, false);
    std::cout << manual << '\n' << std::flush;
    return status == 0 ? 0 : 1;
}

// Options of internal builds only. Returns an exit status when the run ends here.
std::optional<int> applyInternalOptions(const ArgumentMap& arguments, RunOptions& options) {
    if (arguments.contains("--testmode")) options.destinationVolume = "/tmp";
    if (arguments.contains("--force")) options.force = true;
    const auto captureSpec = arguments.find("--capturespec");
    if (captureSpec == arguments.end()) return std::nullopt;
    if (captureSpec->second.empty()) {
        std::cout << "missing parameter to --capturespec <path>\n";
        return 1;
    }
    const std::filesystem::path path = captureSpec->second.front();
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        std::cout << "--capturespec <path> is not a valid path\n";
        return 1;
    }
    options.captureSpecPath = path;
    return std::nullopt;
}

// Internal builds may run without root. Otherwise even --help is refused. Returns an exit status when the run ends
// here.
std::optional<int> checkPrivileges(const ArgumentMap& arguments, RunOptions& options) {
    if (internalPoliciesAllowed(subsystemIdentifier)) return applyInternalOptions(arguments, options);
    if (::getuid() == 0) return std::nullopt;
    std::cout << "This utility must run with sudo, e.g. 'sudo tarnwick'\n";
    return notRoot;
}

int summarize(const RunOptions& options, bool asPlist) {
    printSummary(listCaptures(options), asPlist);
    return 0;
}

void chooseConfiguration(RunOptions& options) {
    if (options.captureSpecPath.empty()) options.captureSpecPath = resolveConfigFile(configurationFile);
    if (options.captureSpecPath.empty()) {
        std::cout << "using internal config\n" << std::flush;
    } else {
        std::cout << "using external config: " << quotedPath(options.captureSpecPath) << '\n' << std::flush;
    }
}

int capture(const ArgumentMap& arguments, RunOptions& options) {
    if (arguments.contains("--noninteractive")) {
        options.nonInteractive = options.skipEncrypted = true;
        std::cout << "Non-Interactive mode: encrypted and/or unconsented volumes will be skipped\n";
    }
    chooseConfiguration(options);
    printIntroduction();
    try {
        runCapture(options);
    } catch (const std::runtime_error& error) {
        std::cout << "FATAL ERROR: " << error.what() << "\n\n";
        return 1;
    }
    printCompletion();
    return 0;
}

}  // namespace

}  // namespace tarnwick

int main(int argc, char** argv) {
    using namespace tarnwick;
    qvx::ignoreOpensslEnvironment();
    fillStandardStreams();
    reserveOpenFiles();
    fixEnvironmentOfCommands();
    fixInheritedSettings();
    RunOptions options;
    const ArgumentMap arguments = parseArguments(argc, argv);
    if (const auto status = checkPrivileges(arguments, options)) return *status;
    if (arguments.contains("--verbose")) setVerboseConsole(true);
    if (arguments.contains("--help") || arguments.contains("-h")) return printUsage();
    if (arguments.contains("--cleanup")) return cleanupCaptures(options) ? 0 : 1;
    if (arguments.contains("--summarize")) return summarize(options, arguments.contains("--plist"));
    return capture(arguments, options);
}
