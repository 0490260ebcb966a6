#include "archive_access.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "key_files.h"

namespace tarnwick::qvx {

namespace {

std::string describe(const ReadFault& fault) {
    std::string text = fault.subject.empty() ? "" : escapedName(fault.subject) + ": ";
    if (fault.block) text += "block " + std::to_string(*fault.block);
    if (fault.position) text += (fault.block ? " at position " : "position ") + std::to_string(*fault.position);
    if (fault.block || fault.position) text += ": ";
    return text + fault.text;
}

}  // namespace

void declareArchive(CommandOptions& command, std::string& archive) {
    command.addRequired("ARCHIVE", archive, "the archive");
}

void declareKeyAndArchive(CommandOptions& command, ArchiveOptions& options) {
    command.addRequired("-k,--key", options.key, "private key file in PEM form");
    declareArchive(command, options.archive);
}

void declareRecipients(CommandOptions& command, std::vector<std::string>& recipients) {
    command.addRequired("-r,--recipient", recipients, "key line, or a file that holds one; may be repeated");
}

Result<std::unique_ptr<ArchiveFile>, CommandError> openArchiveFile(const std::string& archive) {
    // O_NONBLOCK, because opening a FIFO in place of the archive would block forever.
    FileDescriptor descriptor(open(archive.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor) return CommandError{systemError(errno, archive)};
    auto file = ArchiveFile::open(std::move(descriptor));
    if (!file) return archiveError(archive, file.error());
    return std::move(*file);
}

Result<std::unique_ptr<ArchiveReader>, CommandError> openArchive(const ArchiveOptions& options,
                                                                 ArchiveReader::Opening opening) {
    auto file = openArchiveFile(options.archive);
    if (!file) return file.error();
    const auto key = loadPrivateKey(options.key);
    if (!key) return CommandError{key.error()};
    auto reader = ArchiveReader::open(std::move(*file), key->get(), opening);
    if (!reader) return openError(options.archive, reader.error());
    return std::move(*reader);
}

CommandError archiveError(const std::string& archive, const ReadFault& fault) {
    return {{describe(fault), fault.code, archive}};
}

CommandError openError(const std::string& archive, const OpenFault& fault) {
    auto error = archiveError(archive, fault);
    if (fault.otherKey) error.status = exitOtherKey;
    return error;
}

CommandResult finishOutput(const std::string& archive, const ReadOutcome& outcome) {
    const bool written = std::fflush(stdout) == 0 && !std::ferror(stdout);
    const auto failure = systemError(errno, "standard output");
    if (outcome.fault()) return archiveError(archive, *outcome.fault());
    if (!written) return CommandError{failure};
    return outcome ? exitSuccess : exitFailed;
}

std::string entryPath(std::string path) {
    path.erase(0, std::min(path.find_first_not_of('/'), path.size()));
    path.erase(path.find_last_not_of('/') + 1);
    return path.starts_with("./") ? entryPath(path.substr(2)) : path;
}

}  // namespace tarnwick::qvx
