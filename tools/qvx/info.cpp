// qvx info
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "qvx/crypto/ssh_key.h"

namespace tarnwick::qvx {

namespace {

CommandResult runInfo(const std::string& archive) {
    const auto opened = openArchiveFile(archive);
    if (!opened) return opened.error();
    const ArchiveFile& file = **opened;
    const auto copy = readHeader(file);
    if (!copy) return archiveError(archive, copy.error());
    std::printf("format       qvx version %u\n", unsigned{formatVersion});
    std::printf("sealing      profile %u: HPKE, DHKEM(P-256, HKDF-SHA256), HKDF-SHA256, AES-256-GCM\n",
                unsigned{profileHpke});
    std::printf("compression  %u: Zstandard, blocks of %u bytes\n", unsigned{compressionZstd}, unsigned{blockSize});
    for (const auto& recipient : copy->header.recipients)
        std::printf("recipient    %s\n", fingerprintText(recipient.fingerprint).c_str());
    std::printf("size         %llu bytes\n", static_cast<unsigned long long>(file.size()));
    return finishOutput(archive, {});
}

}  // namespace

CommandRun declareInfo(CommandOptions& command) {
    const auto archive = std::make_shared<std::string>();
    declareArchive(command, *archive);
    return [archive] { return runInfo(*archive); };
}

}  // namespace tarnwick::qvx
