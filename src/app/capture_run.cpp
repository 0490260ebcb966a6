#include "app/capture_run.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "base/fatal_error.h"
#include "base/quoted_path.h"
#include "capture/archive_writer.h"
#include "capture/capture_directives.h"
#include "config/capture_spec.h"
#include "log/execution_log.h"
#include "store/capture_store.h"
#include "volumes/capture_plan.h"
#include "volumes/consent.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

void openLog(const std::string& stamp) {
    const std::string path = openExecutionLog(stamp);
    std::cout << "Logging to " << quotedPath(path) << '\n' << std::flush;
}

VolumeInfo findDestination(const RunOptions& options) {
    VolumeInfo destination;
    if (!queryVolumeInfo(options.destinationVolume, destination)) raiseFatal("unable to find destination volume");
    return destination;
}

std::string loadRecipientKey(const fs::path& configuration) {
    std::error_code error;
    if (!configuration.empty() && !fs::is_regular_file(configuration, error)) raiseFatal("invalid config file");
    std::string key = loadArchivePublicKey(configuration);
    if (key.empty()) raiseFatal("unable to parse key from config file");
    return key;
}

fs::path makeTempFolder() {
    std::string folder = "/tmp/tarnwick.XXXXXX";
    if (!::mkdtemp(folder.data())) raiseFatal("could not create tmp dir");
    return folder;
}

fs::path makeCaptureFolder(const std::string& stamp) {
    fs::path folder = makeTempFolder() / ("tarnwick-" + stamp);
    fs::create_directories(folder);
    logInfo("Capturing to temp folder: " + quotedPath(folder));
    return folder;
}

bool hasConsent(const VolumeInfo& volume, const RunOptions& options) {
    logTrace("Checking user consent...");
    bool granted = false;
    if (!checkConsent(volume, options, granted)) {
        logWarning("failed to check consent on '" + volume.volumeName + "', skipping...");
        return false;
    }
    // Also for an owner who was never asked and was not asked now.
    if (!granted) logInfo("explicit denial of consent on '" + volume.volumeName + "', skipping...");
    return granted;
}

void captureVolume(const VolumeInfo& volume, const RunOptions& options, ConsentedVolumes& consented, FilesList& files) {
    const std::string description =
        "processing volume '" + volume.volumeName + "' (" + volume.deviceIdentifier + " -> " + volume.mountPoint + ")";
    // The line end in the text separates volumes: an empty line on the console, a bare "INFO: " in the file.
    logInfo("\nNow " + description);
    if (!hasConsent(volume, options)) return;
    consented.add(volume.mountPoint);
    runCaptureDirectives(options.captureSpecPath, files, volume.mountPoint, consented);
    logInfo("Finished " + description);
}

FilesList collectFiles(const RunOptions& options, const fs::path& captureFolder) {
    FilesList files;
    ConsentedVolumes consented;
    for (const auto& volume : buildCapturePlan()) captureVolume(volume, options, consented, files);
    logInfo("\nFinished with all volumes.");
    const fs::path firmwareVariables = captureFolder / "nvram.txt";
    if (captureFirmwareVariables(firmwareVariables)) files.push_back(firmwareVariables.native());
    logInfo("Files to capture:");
    for (const auto& file : files) logInfo(file);
    // When the copy failed this is an empty path, and the archive writer refuses to write the archive.
    files.push_back(copyExecutionLog(captureFolder));
    return files;
}

std::uint64_t sizeOf(const fs::path& archive) {
    struct stat status {};
    if (::stat(archive.c_str(), &status) != 0) raiseFatal("stat returned an unexpected error");
    return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace

void runCapture(RunOptions& options) {
    const std::string stamp = makeTimeStamp();
    openLog(stamp);
    const VolumeInfo destination = findDestination(options);
    const std::string recipientKey = loadRecipientKey(options.captureSpecPath);
    const fs::path captureFolder = makeCaptureFolder(stamp);
    const FilesList files = collectFiles(options, captureFolder);
    const fs::path archive = captureFolder / ("tarnwick-" + stamp + ".qvx");
    encryptFile(files, recipientKey, archive);
    logInfo("Captured data to " + quotedPath(archive));
    storeArchive(options, destination, archive, sizeOf(archive));
}

}  // namespace tarnwick
