// P-256 public keys in the one-line form of SSH, the text of a .pub file (RFC 4253 section 6.6, RFC 5656 section 3.1).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qvx/bytes.h"

namespace tarnwick::qvx {

// SHA-256 of the wire form of the key: the fingerprint that `ssh-keygen -l` prints. Throws std::bad_alloc.
Digest sshFingerprint(const Point& point);

// "SHA256:" and base64 without padding, the usual text form.
std::string fingerprintText(const Digest& fingerprint);

// The line of a key, without a comment and without a line end.
std::string sshKeyLine(const Point& point);

// Parses a key line and returns its point. What follows the base64 text after a blank or line end is a comment. None
// for another key type or a blob that is not exactly right. Does not check that the point is on the curve.
std::optional<Point> parseSshKeyLine(std::string_view line);

}  // namespace tarnwick::qvx
