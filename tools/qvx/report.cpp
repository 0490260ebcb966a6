#include "report.h"

#include <cstdio>
#include <cstring>

#include "progress.h"
#include "qvx/remote/remote_url.h"

namespace tarnwick::qvx {

void report(const std::string& message) {
    const ProgressPause pause;
    std::fprintf(stderr, "qvx: %s\n", visibleText(withoutSecrets(message)).c_str());
}

void report(const Error& error) {
    const std::string& subject = error.subject;
    // An address in a wrong place of the command line, for example.
    const std::string name = escapedName(isUrl(subject) ? printableUrl(subject) : subject);
    report(subject.empty() ? error.text : name + ": " + error.text);
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
