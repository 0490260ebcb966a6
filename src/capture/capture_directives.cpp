#include "capture/capture_directives.h"

#include <utility>

#include "config/capture_spec.h"
#include "log/command_runner.h"
#include "log/execution_log.h"
#include "platform/find_dialect.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

void logDirective(const CaptureDirective& directive) {
    logInfo("Capturing: " + directive.DocString);
    logTrace(std::string(32, '#'));
    logTrace("DocString: " + directive.DocString);
    logTrace("BasePath: " + directive.BasePath);
    logTrace("Expression: " + directive.Expression);
}

// Drops one leading slash, so that the path is below the mount point. After "//" the rest is an absolute path of its
// own, independent of the mount point.
fs::path baseDirectoryOn(const fs::path& mountPoint, const std::string& basePath) {
    return mountPoint / (basePath.at(0) == '/' ? basePath.substr(1) : basePath);
}

// Nothing is escaped: the configuration is trusted.
std::string searchCommand(const fs::path& baseDirectory, const std::string& expression) {
    return "find \"" + baseDirectory.native() + "\" -type f " + regexTypeOption(expression) + "-regex '" + expression +
           "'";
}

void runDirective(const CaptureDirective& directive, const fs::path& mountPoint, FoundFiles& found, FilesList& files) {
    logDirective(directive);
    const fs::path baseDirectory = baseDirectoryOn(mountPoint, directive.BasePath);
    if (!fs::is_directory(baseDirectory)) {
        logTrace("BasePath does not exist on the target volume, skipping...");
        return;
    }
    const std::string command = searchCommand(baseDirectory, directive.Expression);
    logTrace("search command: " + command);
    std::string output;
    // find also fails when it cannot read one folder of many; then its list may be incomplete.
    if (runCommand(command, output, false) != 0) {
        logWarning("search command returned an error, skipping this capture directive");
        return;
    }
    forEachFoundPath(output, baseDirectory, [&](std::string path) { found.appendIfAllowed(std::move(path), files); });
}

}  // namespace

void runCaptureDirectives(const std::string& captureSpecPath, FilesList& files, const fs::path& mountPoint,
                          ConsentedVolumes& consented) {
    files.clear();
    FoundFiles found(consented);
    for (const auto& directive : loadCaptureSpec(captureSpecPath)) runDirective(directive, mountPoint, found, files);
}

bool captureFirmwareVariables(const fs::path& outputPath) {
    const std::string command = "nvram -p >> " + outputPath.native();
    logTrace("nvram command: " + command);
    std::string output;
    if (runCommand(command, output, false) != 0) {
        logWarning("nvram command returned an error, skipping this capture directive");
        return false;
    }
    return true;
}

}  // namespace tarnwick
