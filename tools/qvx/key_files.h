// Reads and creates the key files of qvx.
#pragma once

#include <string>
#include <vector>

#include "qvx/crypto/private_key.h"

namespace tarnwick::qvx {

// Reads the private key at `path` ("-" is standard input); asks for its passphrase on the terminal.
Result<KeyHandle> loadPrivateKey(const std::string& path);

// The recipients named on the command line: each is an SSH key line, or a file whose first such line is used.
Result<std::vector<Point>> loadRecipients(const std::vector<std::string>& linesOrPaths);

// Creates NAME.pem (0600) and NAME.pub, neither of which may exist, and returns the fingerprint of the key. Asks on the
// terminal for the passphrase of an encrypted one. On failure neither is left, nor after an interruption, which is
// recorded from here on.
Result<Digest> makeKeyFiles(const std::string& name, bool encrypted);

}  // namespace tarnwick::qvx
