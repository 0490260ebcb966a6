// Regular expressions that mean one thing to GNU find and another in the configuration.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// Directives use POSIX basic regular expressions; the default dialect of GNU find differs. Returns "-regextype
// posix-basic " when the two interpret the expression differently, otherwise an empty text. `find` must run in the C
// locale, where ranges follow byte values.
// One difference is ignored because it concerns almost every expression: in the default dialect the dot does not match
// a line feed, so without the option ".*" does not find a path with a line feed.
std::string regexTypeOption(std::string_view expression);

}  // namespace tarnwick
