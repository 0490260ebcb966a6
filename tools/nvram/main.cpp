// nvram: prints the firmware variables, one on each line.
#include <unistd.h>

#include <cstdlib>

#include "companion.h"
#include "firmware_variables.h"

namespace {

using namespace tarnwick;

constexpr const char* program = "nvram";
constexpr const char* variablesFolder = "/sys/firmware/efi/efivars";

Result<int> printVariables() {
    const char* forTests = std::getenv("TARNWICK_EFIVARS_DIR");
    const auto write = [](const std::string& line) {
        static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));  // see ferror below
    };
    const auto dump = dumpVariables(forTests ? forTests : variablesFolder, write, ::read);
    for (const auto& problem : dump.problems) report(program, problem);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) return Error{"cannot write the variables"};
    if (!dump.found) return Error{"this machine shows no firmware variables"};
    return dump.shown > 0 ? 0 : exitFailed;
}

int run(std::vector<std::string> arguments) {
    CLI::App app("Show the variables of the firmware", program);
    bool print = false;
    app.add_flag("-p", print, "print all variables, one a line")->required();
    return runCompanion(app, std::move(arguments), printVariables);
}

}  // namespace

int main(int count, char** values) { return companionMain(program, count, values, run); }
