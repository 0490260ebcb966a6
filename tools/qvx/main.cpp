// qvx: makes, lists, checks and unpacks archives sealed to the holder of a P-256 key.
#include <CLI/CLI.hpp>
#include <string>

#include "key_files.h"
#include "report.h"

using namespace tarnwick::qvx;

namespace {

struct Options {
    std::string name;
};

int runKeygen(const Options& options) { return makeKeyFiles(options.name) ? exitFine : exitFailed; }

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Make, list, check and unpack sealed archives", "qvx");
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) { return "qvx: " + std::string(error.what()) + '\n'; });
    Options options;
    int status = exitFine;

    auto* keygen = app.add_subcommand("keygen", "make a key pair, NAME.pem and NAME.pub");
    keygen->add_option("-o,--output", options.name, "where the files go, without .pem and .pub")->required();
    keygen->callback([&] { status = runKeygen(options); });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitFine : exitUsage;
    }
    return status;
}
