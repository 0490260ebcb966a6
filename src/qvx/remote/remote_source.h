// An archive on a server, read by range requests over https.
#pragma once

#include <string>

#include "qvx/read/byte_source.h"

namespace tarnwick::qvx {

// Fetches the first bytes of the object at `url`, which begins with https://. Fails when the server does not answer
// range requests, and when the connection cannot be trusted.
//
// Reads of the source wait for the network; hints do not. Fetched bytes are kept in a cache. After a failure, also that
// of a hint, every read fails for 30 seconds; the next one tries again. Memory: 24 MiB, and 2 MiB for connections.
Result<std::unique_ptr<ByteSource>, ReadFault> openRemoteSource(const std::string& url, StopQuestion interrupted);

}  // namespace tarnwick::qvx
