#include "base/fatal_error.h"

#include <cstdio>

namespace tarnwick {

void raiseFatal(const std::string& message) {
    std::puts(message.c_str());
    static_cast<void>(std::fflush(stdout));  // if nobody catches the error, the process ends without flushing
    throw FatalError(message);
}

}  // namespace tarnwick
