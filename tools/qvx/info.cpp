// qvx info
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "json_object.h"
#include "progress.h"
#include "qvx/crypto/ssh_key.h"

namespace tarnwick::qvx {

namespace {

struct InfoOptions {
    std::vector<std::string> archives;
    bool json = false;
};

void printJson(const std::string& archive, const ArchiveFile& file, const FileHeader& header) {
    JsonArray recipients;
    for (const auto& recipient : header.recipients) recipients.add(jsonString(fingerprintText(recipient.fingerprint)));
    JsonObject object;
    object.text("archive", archiveName(archive));
    object.number("format", formatVersion);
    object.number("profile", profileHpke);
    object.number("compression", compressionZstd);
    object.number("block_size", blockSize);
    object.raw("recipients", recipients.finish());
    object.number("size", file.size());
    std::puts(object.finish().c_str());
}

void printLines(const char* begin, const ArchiveFile& file, const FileHeader& header) {
    std::printf("%sformat       qvx version %u\n", begin, unsigned{formatVersion});
    std::printf("%ssealing      profile %u: HPKE, DHKEM(P-256, HKDF-SHA256), HKDF-SHA256, AES-256-GCM\n", begin,
                unsigned{profileHpke});
    std::printf("%scompression  %u: Zstandard, blocks of %u bytes\n", begin, unsigned{compressionZstd},
                unsigned{blockSize});
    for (const auto& recipient : header.recipients)
        std::printf("%srecipient    %s\n", begin, fingerprintText(recipient.fingerprint).c_str());
    std::printf("%ssize         %llu bytes\n", begin, static_cast<unsigned long long>(file.size()));
}

CommandResult printInfo(const std::string& archive, const std::string& prefix, bool json) {
    const auto opened = openArchiveFile(archive);
    if (!opened) return opened.error();
    const auto copy = readHeader(**opened);
    if (!copy) return archiveError(archive, copy.error());
    if (json)
        printJson(archive, **opened, copy->header);
    else
        printLines(prefix.c_str(), **opened, copy->header);
    return finishOutput(archive, {});
}

}  // namespace

CommandRun declareInfo(CommandOptions& command) {
    const auto options = std::make_shared<InfoOptions>();
    command.addFlag("--json", options->json, "print one JSON object an archive");
    declareQuiet(command);
    declareArchives(command, options->archives);
    return [options] {
        return forEachArchive(options->archives, [&](const auto& archive, const auto& prefix) {
            return printInfo(archive, prefix, options->json);
        });
    };
}

}  // namespace tarnwick::qvx
