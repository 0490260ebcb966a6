// The regular expressions that GNU find and the configuration read differently.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// Directives are written in POSIX basic regular expressions; GNU find's default dialect is another one. Returns
// "-regextype posix-basic " when the two read something in the expression differently, otherwise the empty text. `find`
// must run in the C locale, where ranges follow the values of bytes.
// One difference is ignored, because almost every expression has it: in the default dialect the dot does not match a
// line feed, so without the option a path with a line feed is not found by ".*".
std::string regexTypeOption(std::string_view expression);

}  // namespace tarnwick
