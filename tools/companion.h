// The frame of the companion programs: their messages, exit statuses and command lines.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/visible_text.h"

namespace tarnwick {

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

// Prints "PROGRAM: SUBJECT: TEXT" on standard error, with hostile bytes escaped.
inline void report(const std::string& program, const Error& error) {
    const auto message = error.subject.empty() ? error.text : error.subject + ": " + error.text;
    std::fprintf(stderr, "%s: %s\n", program.c_str(), visibleText(message).c_str());
}

// Writes a result to standard output, at once. The value is the exit status 0.
inline Result<int> print(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) return 0;
    return systemError(errno, "standard output");
}

// Calls `body` with the command line, without the name of the program. An exception is reported.
inline int companionMain(const char* program, int count, char** values, int (*body)(std::vector<std::string>)) {
    try {
        return body({values + std::min(count, 1), values + count});
    } catch (const std::exception& error) {
        report(program, {error.what()});
    }
    return exitFailed;
}

// Parses the command line and runs `command`, which returns the exit status. An error is reported; the exit status is
// then exitFailed, or exitUsage for a wrong command line.
inline int runCompanion(CLI::App& app, std::vector<std::string> arguments,
                        const std::function<Result<int>()>& command) {
    const auto program = app.get_name();
    try {
        app.failure_message([&](const CLI::App*, const CLI::Error& error) {
            return program + ": " + visibleText(error.what()) + "; see " + program + " --help\n";
        });
        app.set_version_flag("--version", program + " " TARNWICK_VERSION, "print the version and end");
        std::reverse(arguments.begin(), arguments.end());  // the parser expects the last argument first
        app.parse(std::move(arguments));
        const auto status = command();
        if (status) return *status;
        report(program, status.error());
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : exitUsage;
    }
    return exitFailed;
}

}  // namespace tarnwick
