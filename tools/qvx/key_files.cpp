#include "key_files.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "base/file_reading.h"
#include "base/visible_text.h"
#include "interruption.h"
#include "new_file.h"
#include "openssh_key.h"
#include "progress.h"
#include "qvx/crypto/ssh_key.h"
#include "qvx/format/header_seal.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxKeyFileSize = 65535;

// A key may come through a pipe, so other files than regular ones are waited for.
Result<std::string> readKeyFile(const std::string& path) {
    const bool input = path == "-";
    const FileDescriptor file(input ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                    : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return systemError(errno, path);
    auto text = readToEnd(file, maxKeyFileSize);
    if (!text) return systemError(text.error().code, path);
    return text;
}

Status writeKeyFiles(const std::string& name, std::string_view pem, std::string_view line) {
    // Both are made before either is filled, so that an existing file of either name is noticed first.
    NewFile privateFile(name + ".pem", 0600);
    if (!privateFile.made()) return privateFile.made();
    NewFile publicFile(name + ".pub", 0644);
    if (!publicFile.made()) return publicFile.made();
    const auto bytes = [](std::string_view text) {
        return Bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    };
    if (auto filled = privateFile.append(bytes(pem)); !filled) return filled;
    if (auto filled = publicFile.append(bytes(line)); !filled) return filled;
    if (auto synced = privateFile.sync(); !synced) return synced;
    if (auto synced = publicFile.sync(); !synced) return synced;
    if (interrupted()) return Error{"interrupted"};
    privateFile.keep();
    publicFile.keep();
    return {};
}

std::optional<Point> firstKeyLine(std::string_view text) {
    while (!text.empty()) {
        const auto line = text.substr(0, text.find('\n'));
        if (auto point = parseSshKeyLine(line)) return point;
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return std::nullopt;
}

}  // namespace

Result<KeyHandle> loadPrivateKey(const std::string& path) {
    auto pem = readKeyFile(path);
    if (!pem) return pem.error();
    // Only on a terminal: a passphrase that is stored in a script protects nothing.
    const auto ask = [&](Passphrase& passphrase) {
        const ProgressPause pause;
        return askPassphrase(passphrase, "Passphrase for " + path + ": ");
    };
    auto key = isOpensshKey(*pem) ? parseOpensshKey(*pem, ask) : parsePrivateKey(*pem, ask);
    const bool isPublic = !key && firstKeyLine(*pem);
    OPENSSL_cleanse(pem->data(), pem->size());
    if (isPublic) return Error{"this is a public key; the private one is needed", 0, path};
    if (!key) return Error{key.error().text, key.error().code, path};
    return key;
}

namespace {

Result<Point> loadRecipient(const std::string& lineOrPath) {
    if (auto point = parseSshKeyLine(lineOrPath)) return *point;
    // A damaged key line is not tried as a path: "No such file" would not say what is wrong.
    if (lineOrPath.find(' ') != std::string::npos && lineOrPath.starts_with("ecdsa-"))
        return Error{"the recipient is not an ecdsa-sha2-nistp256 key line; `qvx keygen` makes such a key"};
    const auto text = readKeyFile(lineOrPath);
    if (!text) return text.error();
    const auto point = firstKeyLine(*text);
    if (!point) return Error{"no ecdsa-sha2-nistp256 key line in this file", 0, lineOrPath};
    return *point;
}

}  // namespace

Result<std::vector<Point>> loadRecipients(const std::vector<std::string>& linesOrPaths) {
    std::vector<Point> recipients;
    for (const auto& lineOrPath : linesOrPaths) {
        const auto recipient = loadRecipient(lineOrPath);
        if (!recipient) return recipient.error();
        if (Status checked = checkRecipients({&*recipient, 1}); !checked)
            return Error{checked.error().text, 0, lineOrPath};
        recipients.push_back(*recipient);
    }
    return recipients;
}

namespace {

Result<std::string> newKeyPem(EVP_PKEY* key, const std::string& name) {
    Passphrase passphrase;
    Passphrase again;
    if (Status asked = askPassphrase(passphrase, "Passphrase for " + name + ".pem: "); !asked) return asked.error();
    if (passphrase.size() == 0) return Error{"the passphrase is empty"};
    if (Status asked = askPassphrase(again, "The same again: "); !asked) return asked.error();
    if (!std::ranges::equal(std::string_view(passphrase.data(), passphrase.size()),
                            std::string_view(again.data(), again.size())))
        return Error{"the two passphrases differ"};
    return encryptedKeyPem(key, passphrase);
}

}  // namespace

Result<Digest> makeKeyFiles(const std::string& name, bool encrypted) {
    const auto key = generatePrivateKey();
    const auto point = publicPointOf(key.get());
    if (!point) return Error{"cannot generate a key"};
    auto pem = encrypted ? newKeyPem(key.get(), name) : privateKeyPem(key.get());
    if (!pem) return pem.error();
    watchForInterruption();
    const auto written = writeKeyFiles(name, *pem, sshKeyLine(*point) + '\n');
    OPENSSL_cleanse(pem->data(), pem->size());
    if (!written) return written.error();
    return sshFingerprint(*point);
}

}  // namespace tarnwick::qvx
