#include "report.h"

#include <cstdio>
#include <cstring>

#include "progress.h"

namespace tarnwick::qvx {

void report(const std::string& message) {
    const ProgressPause pause;
    std::fprintf(stderr, "qvx: %s\n", visibleText(message).c_str());
}

void report(const Error& error) {
    report(error.subject.empty() ? error.text : escapedName(error.subject) + ": " + error.text);
}

void reportHint(const std::string& message) {
    if (!isQuiet()) report(message);
}

void reportEntry(std::string_view path) {
    if (!isVerbose()) return;
    const ProgressPause pause;
    std::fprintf(stderr, "%s\n", escapedName(path).c_str());
}

void reportError(const std::string& message, int error) { report(message + ": " + std::strerror(error)); }

}  // namespace tarnwick::qvx
