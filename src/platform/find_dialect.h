// Which regular expressions the host's `find` reads otherwise than the configuration means them.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// Directives are written in POSIX basic regular expressions, GNU find reads another dialect by default. Gives
// "-regextype posix-basic " when the expression holds something that the two read differently, else the empty text.
// One difference stays out of account, as every directive has it: by default the dot does not match a line feed. A
// path that holds one is taken for two paths anyway once `find` has printed it.
std::string regexTypeOption(std::string_view expression);

}  // namespace tarnwick
