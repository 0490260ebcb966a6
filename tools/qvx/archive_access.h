// What the commands that read an archive have in common: their options, opening it, and the report of damage.
#pragma once

#include <memory>
#include <string>

#include "command_options.h"
#include "qvx/archive_reader.h"
#include "qvx/crypto/private_key.h"
#include "report.h"

namespace tarnwick::qvx {

struct ArchiveOptions {
    std::string archive;  // path, https:// URL, or "-" for standard input
    std::string key;      // path of the private key, "-" for standard input; empty for $QVX_KEY
};

// The same for a command that reads several archives.
struct ArchivesOptions {
    std::vector<std::string> archives;
    std::string key;
};

// Declares the options; PATH arguments may be declared after them. `options` must outlive the parsing.
void declareArchive(CommandOptions& command, std::string& archive);
void declareKey(CommandOptions& command, std::string& key);
void declareKeyAndArchive(CommandOptions& command, ArchiveOptions& options);
void declareArchives(CommandOptions& command, std::vector<std::string>& archives);
void declareRecipients(CommandOptions& command, std::vector<std::string>& recipients);

// What messages and output call the archive: hostile bytes. Of a URL, without what may be secret.
std::string archiveName(const std::string& archive);

// What a command needs: bytes anywhere, or all of them from the first to the last, for ArchiveReader::readAll(). Only
// for `inOrder` the archive may be standard input.
enum class Access { anywhere, inOrder };

// The archive without its key: only the header can be read.
Result<std::unique_ptr<ArchiveFile>, CommandError> openArchiveFile(const std::string& archive,
                                                                   Access access = Access::anywhere);

// Reads the key of the option, or the one that $QVX_KEY names. Asks for its passphrase if it has one.
Result<KeyHandle, CommandError> loadKey(const std::string& option);

// A key that is not a recipient's gives exitOtherKey.
Result<std::unique_ptr<ArchiveReader>, CommandError> openArchive(
    const std::string& archive, EVP_PKEY* key, ArchiveReader::Opening opening = ArchiveReader::Opening::intact,
    Access access = Access::anywhere);
Result<std::unique_ptr<ArchiveReader>, CommandError> openArchive(
    const ArchiveOptions& options, ArchiveReader::Opening opening = ArchiveReader::Opening::intact,
    Access access = Access::anywhere);

// Calls `run` for each archive, reports its errors, and returns the worst status. `prefix` is what to print before each
// line about the archive: nothing if there is only one.
using ArchiveRun = std::function<CommandResult(const std::string& archive, const std::string& prefix)>;
CommandResult forEachArchive(const std::vector<std::string>& archives, const ArchiveRun& run);

// The fault in the form of a message about the archive: "ENTRY: block 3 at position 4711: TEXT".
CommandError archiveError(const std::string& archive, const ReadFault& fault);
CommandError openError(const std::string& archive, const OpenFault& fault);

// A path of the command line that no entry has. Says so if it is another archive, where only one is read.
Error notInArchive(const std::string& path);

// Flushes standard output and returns how the command ended: its output counts only when all of it was written. If the
// reader of a pipe has closed it, this ends the process by SIGPIPE, as listings of other programs end.
CommandResult finishOutput(const std::string& archive, const ReadOutcome& outcome);

}  // namespace tarnwick::qvx
