#include "base/fatal_error.h"

#include <cstdio>

namespace tarnwick {

void raiseFatal(const std::string& message) {
    std::puts(message.c_str());
    throw FatalError(message);
}

}  // namespace tarnwick
