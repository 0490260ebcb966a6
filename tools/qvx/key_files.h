// Reads and creates the key files of qvx.
#pragma once

#include <optional>
#include <string>

#include "qvx/crypto/private_key.h"

namespace tarnwick::qvx {

// Reads the private key at `path` ("-" is standard input); asks for its passphrase on the terminal. Null, after a
// message, when that fails.
KeyHandle loadPrivateKey(const std::string& path);

// The recipient named on the command line: an SSH key line, or a file whose first such line is used. Nothing, after a
// message, when there is none.
std::optional<Point> loadRecipient(const std::string& lineOrPath);

// Creates NAME.pem (0600) and NAME.pub, neither of which may exist. False after a message; then neither is left.
bool makeKeyFiles(const std::string& name);

}  // namespace tarnwick::qvx
