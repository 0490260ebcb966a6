// Random file names, for folders in which others can create files or a run may have left some.
#pragma once

#include <string>

namespace tarnwick {

// 16 hexadecimal digits from the kernel's random numbers, so that nobody can guess the name and take it first. Throws
// std::system_error when the kernel gives none.
std::string randomDigits();

}  // namespace tarnwick
