// nvram: prints the firmware variables, one on each line.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "firmware_variables.h"

namespace {

using namespace tarnwick;

constexpr int failed = 1;
constexpr int badUsage = 2;
constexpr const char* variablesFolder = "/sys/firmware/efi/efivars";

int complain(const std::string& problem) {
    std::fprintf(stderr, "nvram: %s\n", problem.c_str());
    return failed;
}

int printVariables() {
    const char* forTests = std::getenv("TARNWICK_EFIVARS_DIR");
    const auto write = [](const std::string& line) {
        static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));  // see ferror below
    };
    const auto dump = dumpVariables(forTests ? forTests : variablesFolder, write, ::read);
    for (const auto& problem : dump.problems) complain(problem);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) return complain("cannot write the variables");
    if (!dump.found) return complain("this machine shows no firmware variables");
    return dump.shown > 0 ? 0 : failed;
}

int run(int count, char** values) {
    CLI::App app("Show the variables of the firmware", "nvram");
    app.set_version_flag("--version", "nvram " TARNWICK_VERSION, "print the version and end");
    bool print = false;
    app.add_flag("-p", print, "print all variables, one a line")->required();
    try {
        app.parse(count, values);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : badUsage;
    }
    return printVariables();
}

}  // namespace

int main(int count, char** values) {
    try {
        return run(count, values);
    } catch (const std::exception& error) {
        return complain(error.what());
    }
}
