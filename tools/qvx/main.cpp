// qvx: creates, lists, checks and extracts archives sealed to the holder of a P-256 private key.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <exception>
#include <new>
#include <numeric>
#include <utility>

#include "base/open_files.h"
#include "commands.h"
#include "interruption.h"
#include "progress.h"
#include "qvx/crypto/openssl_environment.h"
#include "qvx/remote/remote_url.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

// Declares all commands; parsing one of them sets `chosen`.
void declareCommands(CLI::App& app, CommandRun& chosen) {
    app.require_subcommand(1);
    for (const Command& row : commands) {
        auto* command = app.add_subcommand(row.name, row.purpose);
        CommandOptions options(*command);
        command->callback([&chosen, run = row.declare(options)] { chosen = run; });
    }
}

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = std::exchange(row[j + 1], std::min({replaced, row[j] + 1, row[j + 1] + 1}));
        }
    }
    return row.back();
}

// What to say about a first word that is no command; nothing if it is one, or an option.
std::string describeUnknownCommand(std::string_view word) {
    const auto edits = [&](const Command& row) { return editDistance(word, row.name); };
    const auto* nearest = std::ranges::min_element(commands, {}, edits);
    if (word.empty() || word.starts_with('-') || edits(*nearest) == 0) return {};
    const bool alike = edits(*nearest) == 1 || (edits(*nearest) == 2 && word.front() == nearest->name[0]);
    const std::string hint = alike ? std::string("did you mean ") + nearest->name + "?" : "see qvx --help";
    return "no command " + escapedName(withoutSecrets(word)) + "; " + hint;
}

int run(int argc, char** argv) {
    CLI::App app("Make, list, search, compare, check and unpack sealed archives", "qvx");
    app.set_version_flag("--version", "qvx " TARNWICK_VERSION, "print the version and end");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "qvx: " + escapedName(withoutSecrets(error.what())) + "; see qvx --help\n";
    });
    const auto unknown = describeUnknownCommand(argc > 1 ? argv[1] : "");
    if (!unknown.empty()) return report(unknown), exitUsage;
    CommandRun chosen;
    declareCommands(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSuccess : exitUsage;
    }
    watchForProgressRequests();
    const CommandResult result = chosen();
    endProgress();
    if (interrupted()) endAsInterrupted();
    if (result) return *result;
    report(result.error());
    return result.error().status;
}

// The next file that is opened gets the number of a closed standard stream, and messages would be written into it.
void occupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

// By default, glibc raises this limit to the size of every large block that is freed, up to 32 MiB. The next blocks of
// that size then leave holes in the heap. Blocks of an archive stay below it.
void fixMappingThreshold() {
    constexpr int bytes = 4 << 20;
    mallopt(M_MMAP_THRESHOLD, bytes);
}

}  // namespace

int main(int argc, char** argv) {
    fixMappingThreshold();
    ignoreOpensslEnvironment();
    // When the reader of the output closes it, the write fails and is handled; the signal would end the process
    // silently.
    std::signal(SIGPIPE, SIG_IGN);
    occupyStandardStreams();
    reserveOpenFiles();
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        report("out of memory");
    } catch (const std::exception& error) {
        report(escapedName(error.what()));
    }
    return exitFailed;
}
