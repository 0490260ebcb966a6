// Keys as qvx finds them on disk and makes them.
#pragma once

#include <optional>
#include <string>

#include "qvx/crypto/private_key.h"

namespace tarnwick::qvx {

// Reads the private key at `path` ("-" is standard input), asking for its passphrase on the terminal. Null, after
// saying why, when there is none.
KeyHandle loadPrivateKey(const std::string& path);

// The recipient named on the command line: an SSH key line, or a file whose first such line counts. Nothing, after
// saying why.
std::optional<Point> loadRecipient(const std::string& lineOrPath);

// Makes NAME.pem (0600) and NAME.pub, neither of which may exist. False after saying why, and then neither is left.
bool makeKeyFiles(const std::string& name);

}  // namespace tarnwick::qvx
