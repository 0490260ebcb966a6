// qvx info
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "qvx/crypto/ssh_key.h"

namespace tarnwick::qvx {

namespace {

CommandResult printInfo(const std::string& archive, const std::string& prefix) {
    const char* begin = prefix.c_str();
    const auto opened = openArchiveFile(archive);
    if (!opened) return opened.error();
    const ArchiveFile& file = **opened;
    const auto copy = readHeader(file);
    if (!copy) return archiveError(archive, copy.error());
    std::printf("%sformat       qvx version %u\n", begin, unsigned{formatVersion});
    std::printf("%ssealing      profile %u: HPKE, DHKEM(P-256, HKDF-SHA256), HKDF-SHA256, AES-256-GCM\n", begin,
                unsigned{profileHpke});
    std::printf("%scompression  %u: Zstandard, blocks of %u bytes\n", begin, unsigned{compressionZstd},
                unsigned{blockSize});
    for (const auto& recipient : copy->header.recipients)
        std::printf("%srecipient    %s\n", begin, fingerprintText(recipient.fingerprint).c_str());
    std::printf("%ssize         %llu bytes\n", begin, static_cast<unsigned long long>(file.size()));
    return finishOutput(archive, {});
}

}  // namespace

CommandRun declareInfo(CommandOptions& command) {
    const auto archives = std::make_shared<std::vector<std::string>>();
    declareArchives(command, *archives);
    return [archives] { return forEachArchive(*archives, printInfo); };
}

}  // namespace tarnwick::qvx
