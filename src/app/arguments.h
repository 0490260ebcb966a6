// Turns the argument vector into a table of options.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tarnwick {

// From option token to its values, in order.
using ArgumentMap = std::map<std::string, std::vector<std::string>>;

// Every token that begins with "-" is an option, a lone "-" too. Its values are the tokens up to the next option; a
// repeated option collects all of them in one list. Tokens before the first option (normally the path of the program)
// are dropped. Nothing is refused here: options are looked up by their full name, and unknown ones are ignored.
ArgumentMap parseArguments(int argc, const char* const* argv);

}  // namespace tarnwick
