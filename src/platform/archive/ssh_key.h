// P-256 public keys in the one-line form of SSH, the text of a .pub file (RFC 4253 section 6.6, RFC 5656 section 3.1).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/archive/format.h"

namespace tarnwick::qvx {

// "SHA256:" and base64 without padding, as `ssh-keygen -l` prints it.
std::string fingerprintText(const Digest& fingerprint);

// The line of a key, without comment and without line end.
std::string sshKeyLine(const Point& point);

// The point of a line; what follows the base64 text after a blank or line end is a comment. Nothing for another key
// type or anything but the exact blob. Whether the point is on the curve is not looked at.
std::optional<Point> parseSshKeyLine(std::string_view line);

}  // namespace tarnwick::qvx
