// Random file names, for folders in which others can create files or an earlier run may have left some.
#pragma once

#include <string>

namespace tarnwick {

// 16 random hexadecimal digits from the kernel, so that others cannot guess a name and create it first. Throws
// std::system_error when the kernel returns none.
std::string randomDigits();

}  // namespace tarnwick
