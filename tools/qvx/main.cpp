// qvx: creates, lists, checks and extracts archives sealed to the holder of a P-256 private key.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <new>

#include "commands.h"
#include "qvx/crypto/openssl_environment.h"

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

int run(int argc, char** argv) {
    CLI::App app("Make, list, check and unpack sealed archives", "qvx");
    app.set_version_flag("--version", "qvx " TARNWICK_VERSION, "print the version and end");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "qvx: " + escapedName(error.what()) + "; see qvx --help\n";
    });
    CommandRun chosen;
    declareCommands(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSuccess : exitUsage;
    }
    const CommandResult result = chosen();
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
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        report("out of memory");
    } catch (const std::exception& error) {
        report(escapedName(error.what()));
    }
    return exitFailed;
}
