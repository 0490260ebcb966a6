// P-256 public keys in the one-line form of SSH, the text of a .pub file (RFC 4253 section 6.6, RFC 5656 section 3.1).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qvx/bytes.h"

namespace tarnwick::qvx {

// SHA-256 of the key's wire form: the fingerprint that `ssh-keygen -l` prints.
Digest sshFingerprint(const Point& point);

// "SHA256:" and base64 without padding, as it is printed.
std::string fingerprintText(const Digest& fingerprint);

// The line of a key, without comment and without line end.
std::string sshKeyLine(const Point& point);

// The point of a line; what follows the base64 text after a blank or line end is a comment. Nothing for another key
// type or anything but the exact blob. Whether the point is on the curve is not looked at.
std::optional<Point> parseSshKeyLine(std::string_view line);

}  // namespace tarnwick::qvx
