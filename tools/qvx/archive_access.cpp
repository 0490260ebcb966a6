#include "archive_access.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "counted_source.h"
#include "interruption.h"
#include "key_files.h"
#include "progress.h"
#include "qvx/read/stream_source.h"
#include "qvx/remote/remote_source.h"
#include "qvx/remote/remote_url.h"

namespace tarnwick::qvx {

namespace {

bool standardInputUsed = false;

std::string describe(const ReadFault& fault) {
    std::string text = fault.subject.empty() ? "" : escapedName(fault.subject) + ": ";
    if (fault.block) text += "block " + std::to_string(*fault.block);
    if (fault.position) text += (fault.block ? " at position " : "position ") + std::to_string(*fault.position);
    if (fault.block || fault.position) text += ": ";
    return text + fault.text;
}

bool readerHasClosedOutput() {
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR);
}

void endByClosedPipe() {
    endProgress();
    std::signal(SIGPIPE, SIG_DFL);  // main() ignores it
    std::raise(SIGPIPE);
}

// For what waits, in any thread.
bool stopsWaiting() {
    checkProgress();
    return interrupted();
}

Result<std::unique_ptr<ByteSource>, ReadFault> openSource(const std::string& archive) {
    if (archive == "-") return openStreamSource(FileDescriptor(dup(STDIN_FILENO)), stopsWaiting);
    if (isUrl(archive)) return openRemoteSource(archive, stopsWaiting);
    // O_NONBLOCK, because opening a FIFO in place of the archive would block forever.
    FileDescriptor descriptor(open(archive.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor) return ReadFault{systemError(errno)};
    return openFileSource(std::move(descriptor));
}

Result<std::unique_ptr<ByteSource>, CommandError> openChecked(const std::string& archive, Access access) {
    if (archive == "-" && access == Access::anywhere)
        return CommandError{{"this needs the end of the archive first, which a pipe cannot give; save the archive to a "
                             "file"},
                            exitUsage};
    if (isUrl(archive) && !isSecureUrl(archive))
        return CommandError{{"http:// is not supported, only https://", 0, archiveName(archive)}, exitUsage};
    if (archive == "-" && std::exchange(standardInputUsed, true))
        return CommandError{{"standard input is read already, as a key or an archive"}, exitUsage};
    auto source = openSource(archive);
    if (!source) return archiveError(archive, source.error());
    return std::move(*source);
}

}  // namespace

void declareArchive(CommandOptions& command, std::string& archive) {
    command.addRequired("ARCHIVE", archive, "the archive");
}

void declareKey(CommandOptions& command, std::string& key) {
    command.add("-k,--key", key, "private key file; otherwise the one that $QVX_KEY names");
}

void declareKeyAndArchive(CommandOptions& command, ArchiveOptions& options) {
    declareKey(command, options.key);
    declareArchive(command, options.archive);
}

void declareArchives(CommandOptions& command, std::vector<std::string>& archives) {
    command.addRequiredList("ARCHIVE", archives, "the archives");
}

void declareRecipients(CommandOptions& command, std::vector<std::string>& recipients) {
    command.addRequired("-r,--recipient", recipients, "key line, or a file that holds one; may be repeated");
}

std::string archiveName(const std::string& archive) {
    if (archive == "-") return "standard input";
    return isUrl(archive) ? printableUrl(archive) : archive;
}

Result<std::unique_ptr<ArchiveFile>, CommandError> openArchiveFile(const std::string& archive, Access access) {
    auto source = openChecked(archive, access);
    if (!source) return source.error();
    return std::make_unique<ArchiveFile>(countedSource(std::move(*source), archiveName(archive)));
}

Result<KeyHandle, CommandError> loadKey(const std::string& option) {
    const char* standard = std::getenv("QVX_KEY");
    const std::string path = option.empty() && standard ? standard : option;
    if (path.empty()) return CommandError{{"no private key: give --key, or set QVX_KEY"}, exitUsage};
    standardInputUsed = path == "-";
    auto key = loadPrivateKey(path);
    if (!key) return CommandError{key.error()};
    return std::move(*key);
}

Result<std::unique_ptr<ArchiveReader>, CommandError> openArchive(const std::string& archive, EVP_PKEY* key,
                                                                 ArchiveReader::Opening opening, Access access) {
    auto file = openArchiveFile(archive, access);
    if (!file) return file.error();
    auto reader = ArchiveReader::open(std::move(*file), key, opening);
    if (!reader) return openError(archive, reader.error());
    return std::move(*reader);
}

Result<std::unique_ptr<ArchiveReader>, CommandError> openArchive(const ArchiveOptions& options,
                                                                 ArchiveReader::Opening opening, Access access) {
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    return openArchive(options.archive, key->get(), opening, access);
}

CommandResult forEachArchive(const std::vector<std::string>& archives, const ArchiveRun& run) {
    const bool several = archives.size() > 1;
    ExitStatus worst = exitSuccess;
    std::size_t number = 0;
    std::size_t failed = 0;
    for (const auto& archive : archives) {
        if (interrupted()) break;
        beginArchive(++number, archives.size());
        const auto result = run(archive, several ? escapedName(archiveName(archive)) + ": " : std::string());
        endProgress();
        if (!result) report(result.error());
        const ExitStatus status = result ? *result : result.error().status;
        if (status != exitSuccess) ++failed;
        worst = std::max(worst, status);
    }
    if (several) reportHint(std::to_string(archives.size()) + " archives, " + std::to_string(failed) + " with errors");
    return worst;
}

CommandError archiveError(const std::string& archive, const ReadFault& fault) {
    return {{describe(fault), fault.code, archiveName(archive)}};
}

CommandError openError(const std::string& archive, const OpenFault& fault) {
    auto error = archiveError(archive, fault);
    if (fault.otherKey) error.status = exitOtherKey;
    return error;
}

Error notInArchive(const std::string& path) {
    auto source = openChecked(path, Access::anywhere);
    if (!source || !readHeader(ArchiveFile(std::move(*source)))) return {"not in the archive", 0, path};
    return {"another archive: this command reads only one, and then paths in it", 0, path};
}

CommandResult finishOutput(const std::string& archive, const ReadOutcome& outcome) {
    const bool written = std::fflush(stdout) == 0 && !std::ferror(stdout);
    const auto failure = systemError(errno, "standard output");
    if (outcome.fault()) return archiveError(archive, *outcome.fault());
    if (!written && readerHasClosedOutput()) endByClosedPipe();
    if (!written) return CommandError{failure};
    return outcome ? exitSuccess : exitFailed;
}

}  // namespace tarnwick::qvx
