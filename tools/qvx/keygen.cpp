// qvx keygen
#include <cstdio>
#include <memory>

#include "commands.h"
#include "key_files.h"
#include "qvx/crypto/ssh_key.h"

namespace tarnwick::qvx {

namespace {

CommandResult runKeygen(const std::string& name) {
    const auto fingerprint = makeKeyFiles(name);
    if (!fingerprint) return CommandError{fingerprint.error()};
    std::printf("%s\n", fingerprintText(*fingerprint).c_str());
    return exitSuccess;
}

}  // namespace

CommandRun declareKeygen(CommandOptions& command) {
    const auto name = std::make_shared<std::string>();
    command.addRequired("-o,--output", *name, "NAME: where the files go, without .pem and .pub");
    return [name] { return runKeygen(*name); };
}

}  // namespace tarnwick::qvx
