#include "report.h"

#include <cstdio>
#include <cstring>

namespace tarnwick::qvx {

void say(const std::string& message) { std::fprintf(stderr, "qvx: %s\n", message.c_str()); }

void say(const Error& error) {
    say(error.subject.empty() ? error.text : escapedName(error.subject) + ": " + error.text);
}

void sayError(const std::string& message, int error) { say(message + ": " + std::strerror(error)); }

}  // namespace tarnwick::qvx
