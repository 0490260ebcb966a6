// Reads and creates the key files of qvx.
#pragma once

#include <string>

#include "qvx/crypto/private_key.h"

namespace tarnwick::qvx {

// Reads the private key at `path` ("-" is standard input); asks for its passphrase on the terminal.
Result<KeyHandle> loadPrivateKey(const std::string& path);

// The recipient named on the command line: an SSH key line, or a file whose first such line is used.
Result<Point> loadRecipient(const std::string& lineOrPath);

// Creates NAME.pem (0600) and NAME.pub, neither of which may exist, and returns the fingerprint of the key. On failure
// neither is left.
Result<Digest> makeKeyFiles(const std::string& name);

}  // namespace tarnwick::qvx
