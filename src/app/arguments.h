// The argument vector as a table of options.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tarnwick {

// Option token to its values, in order.
using ArgumentMap = std::map<std::string, std::vector<std::string>>;

// Every token that begins with "-" is an option, a lone "-" too, and takes the tokens up to the next option as its
// values; a repeated option gathers them in one list. Tokens before the first option, so the program's path as a rule,
// are dropped. Nothing is refused here: options are looked up by their whole name, and unknown ones do no harm.
ArgumentMap parseArguments(int argc, const char* const* argv);

}  // namespace tarnwick
