// qvx keygen
#include <cstdio>
#include <memory>

#include "commands.h"
#include "key_files.h"
#include "qvx/crypto/ssh_key.h"

namespace tarnwick::qvx {

namespace {

struct KeygenOptions {
    std::string name;
    bool passphrase = false;
};

CommandResult runKeygen(const KeygenOptions& options) {
    const auto fingerprint = makeKeyFiles(options.name, options.passphrase);
    if (!fingerprint) return CommandError{fingerprint.error()};
    std::printf("%s\n", fingerprintText(*fingerprint).c_str());
    return exitSuccess;
}

}  // namespace

CommandRun declareKeygen(CommandOptions& command) {
    const auto options = std::make_shared<KeygenOptions>();
    command.addRequired("-o,--output", options->name, "NAME: where the files go, without .pem and .pub");
    command.addFlag("--passphrase", options->passphrase, "ask for a passphrase and encrypt the private key with it");
    return [options] { return runKeygen(*options); };
}

}  // namespace tarnwick::qvx
