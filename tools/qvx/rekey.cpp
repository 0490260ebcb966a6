// qvx rekey
#include <algorithm>
#include <memory>

#include "archive_access.h"
#include "archive_output.h"
#include "commands.h"
#include "key_files.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t copiedAtOnce = 1048576;  // bytes

struct RekeyOptions : ArchiveOptions {
    std::vector<std::string> recipients;
    std::string output;
};

Status copyBlocks(const ArchiveFile& from, std::uint64_t begin, std::uint64_t end, const ArchiveWriter::Sink& to) {
    std::vector<std::uint8_t> buffer;
    for (std::uint64_t position = begin; position < end; position += buffer.size()) {
        buffer.resize(std::min(end - position, copiedAtOnce));
        from.willReadFrom(position);
        if (Status read = from.read(position, buffer); !read) return read;
        if (Status written = to(buffer); !written) return written;
    }
    return {};
}

// The blocks do not depend on the recipients, so they stay as they are.
Status writeCopy(const ArchiveFile& from, const OpenedHeader& old, Bytes header, const ArchiveWriter::Sink& to) {
    const std::uint64_t length = old.copy.bytes.size();
    if (Status written = to(header); !written) return written;
    if (Status copied = copyBlocks(from, length, from.size() - length - footerEndSize, to); !copied) return copied;
    return to(encodeFooter(header));
}

CommandResult runRekey(const RekeyOptions& options) {
    const auto recipients = loadRecipients(options.recipients);
    if (!recipients) return CommandError{recipients.error()};
    auto output = ArchiveOutput::open(options.output);
    if (!output) return CommandError{output.error()};
    const auto file = openArchiveFile(options.archive);
    if (!file) return file.error();
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    const auto old = openHeader(**file, key->get());
    if (!old) return openError(options.archive, old.error());
    const auto header = sealHeader({old->copy.header.salt, old->unsealed.contentKey}, *recipients);
    if (!header) return CommandError{header.error()};
    Status written = output->create();
    (*file)->expect((*file)->size());
    if (written) written = writeCopy(**file, *old, *header, output->sink());
    if (written) written = output->place();
    if (!written) return CommandError{written.error()};
    return exitSuccess;
}

}  // namespace

CommandRun declareRekey(CommandOptions& command) {
    const auto options = std::make_shared<RekeyOptions>();
    declareRecipients(command, options->recipients);
    command.addRequired("-o,--output", options->output, "the new archive");
    declareKeyAndArchive(command, *options);
    declareProgress(command);
    return [options] { return runRekey(*options); };
}

}  // namespace tarnwick::qvx
