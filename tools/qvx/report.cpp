#include "report.h"

#include <cstdio>
#include <cstring>

namespace tarnwick::qvx {

void report(const std::string& message) { std::fprintf(stderr, "qvx: %s\n", visibleText(message).c_str()); }

void report(const Error& error) {
    report(error.subject.empty() ? error.text : escapedName(error.subject) + ": " + error.text);
}

void reportError(const std::string& message, int error) { report(message + ": " + std::strerror(error)); }

}  // namespace tarnwick::qvx
