// qvx rekey
#include <algorithm>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "interruption.h"
#include "key_files.h"
#include "new_file.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t copiedAtOnce = 1048576;  // bytes

struct RekeyOptions : ArchiveOptions {
    std::vector<std::string> recipients;
    std::string output;
};

Status copyBlocks(const ArchiveFile& from, std::uint64_t begin, std::uint64_t end, NewFile& to) {
    std::vector<std::uint8_t> buffer;
    for (std::uint64_t position = begin; position < end; position += buffer.size()) {
        if (interrupted()) return Error{"interrupted"};
        buffer.resize(std::min(end - position, copiedAtOnce));
        if (Status read = from.read(position, buffer); !read) return read;
        if (Status written = to.append(buffer); !written) return written;
    }
    return {};
}

// The blocks do not depend on the recipients, so they stay as they are.
Status writeCopy(const ArchiveFile& from, const OpenedHeader& old, Bytes header, NewFile& to) {
    const std::uint64_t length = old.copy.bytes.size();
    if (Status written = to.append(header); !written) return written;
    if (Status copied = copyBlocks(from, length, from.size() - length - footerEndSize, to); !copied) return copied;
    if (Status written = to.append(encodeFooter(header)); !written) return written;
    return to.sync();
}

CommandResult runRekey(const RekeyOptions& options) {
    const auto recipients = loadRecipients(options.recipients);
    if (!recipients) return CommandError{recipients.error()};
    const auto file = openArchiveFile(options.archive);
    if (!file) return file.error();
    const auto key = loadPrivateKey(options.key);
    if (!key) return CommandError{key.error()};
    const auto old = openHeader(**file, key->get());
    if (!old) return openError(options.archive, old.error());
    const auto header = sealHeader({old->copy.header.salt, old->unsealed.contentKey}, *recipients);
    if (!header) return CommandError{header.error()};
    watchForInterruption();
    NewFile output(options.output, 0600);
    if (!output.made()) return CommandError{output.made().error()};
    if (Status written = writeCopy(**file, *old, *header, output); !written) return CommandError{written.error()};
    output.keep();
    return exitSuccess;
}

}  // namespace

CommandRun declareRekey(CommandOptions& command) {
    const auto options = std::make_shared<RekeyOptions>();
    declareRecipients(command, options->recipients);
    command.addRequired("-o,--output", options->output, "the new archive, which must not exist");
    declareKeyAndArchive(command, *options);
    return [options] { return runRekey(*options); };
}

}  // namespace tarnwick::qvx
