#include "key_files.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "qvx/crypto/ssh_key.h"
#include "report.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t keyFileLimit = 65536;

// The whole file, or nothing with errno set. A key may come through a pipe, so other files than regular ones are waited
// for.
std::optional<std::string> readKeyFile(const std::string& path) {
    const FileDescriptor opened(path == "-" ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const int descriptor = path == "-" ? STDIN_FILENO : opened.get();
    if (descriptor < 0) return std::nullopt;
    std::string text(keyFileLimit, '\0');
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t got = read(descriptor, text.data() + length, text.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    if (length == text.size()) {
        errno = EFBIG;
        return std::nullopt;
    }
    text.resize(length);
    return text;
}

// Asks only on a terminal: a passphrase that is stored in a script protects nothing.
std::optional<std::string> askPassphrase(const std::string& path) {
    if (!FileDescriptor(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC))) return std::nullopt;
    char buffer[1024];
    const std::string prompt = "Passphrase for " + escapedName(path) + ": ";
    std::optional<std::string> passphrase;
    if (EVP_read_pw_string(buffer, sizeof buffer, prompt.c_str(), 0) == 0) passphrase = buffer;
    OPENSSL_cleanse(buffer, sizeof buffer);
    return passphrase;
}

const char* describe(KeyFault fault) {
    switch (fault) {
        case KeyFault::openSshForm:
            return "is a key in OpenSSH's own form; a copy converted with "
                   "`ssh-keygen -p -m PKCS8 -f COPY` can be read";
        case KeyFault::notP256: return "is not a P-256 key";
        case KeyFault::noPassphrase: return "is encrypted, and there is no terminal to ask for the passphrase";
        case KeyFault::wrongPassphrase: return "does not open with this passphrase";
        default: return "is not a private key in PEM form";
    }
}

bool writeWhole(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t wrote = write(descriptor, text.data(), text.size());
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) return false;
        text.remove_prefix(static_cast<std::size_t>(wrote));
    }
    return true;
}

// A new file, which must not exist yet; the destructor removes it unless keep() was called.
class NewFile {
public:
    NewFile(std::string path, mode_t mode)
        : path_(std::move(path)), descriptor_(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)) {
        if (!descriptor_) sayError(escapedName(path_), errno);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (descriptor_ && !kept_) unlink(path_.c_str());
    }

    explicit operator bool() const { return static_cast<bool>(descriptor_); }
    bool fill(std::string_view text) {
        const bool done = writeWhole(descriptor_.get(), text) && fsync(descriptor_.get()) == 0;
        if (!done) sayError(escapedName(path_), errno);
        return done;
    }
    void keep() { kept_ = true; }

private:
    std::string path_;
    FileDescriptor descriptor_;
    bool kept_ = false;
};

std::optional<Point> firstKeyLine(std::string_view text) {
    while (!text.empty()) {
        const auto line = text.substr(0, text.find('\n'));
        if (auto point = parseSshKeyLine(line)) return point;
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return std::nullopt;
}

}  // namespace

KeyHandle loadPrivateKey(const std::string& path) {
    auto pem = readKeyFile(path);
    if (!pem) {
        sayError(escapedName(path), errno);
        return nullptr;
    }
    auto parsed = parsePrivateKey(*pem, [&path] { return askPassphrase(path); });
    OPENSSL_cleanse(pem->data(), pem->size());
    if (!parsed.key) say(escapedName(path) + ' ' + describe(parsed.fault));
    return std::move(parsed.key);
}

std::optional<Point> loadRecipient(const std::string& lineOrPath) {
    if (auto point = parseSshKeyLine(lineOrPath)) return point;
    if (lineOrPath.find(' ') != std::string::npos && lineOrPath.starts_with("ecdsa-")) {
        say("the recipient is not an ecdsa-sha2-nistp256 key line");
        return std::nullopt;
    }
    const auto text = readKeyFile(lineOrPath);
    if (!text) {
        sayError(escapedName(lineOrPath), errno);
        return std::nullopt;
    }
    auto point = firstKeyLine(*text);
    if (!point) say(escapedName(lineOrPath) + " holds no ecdsa-sha2-nistp256 key line");
    return point;
}

bool makeKeyFiles(const std::string& name) {
    const auto key = generatePrivateKey();
    const auto point = publicPointOf(key.get());
    auto pem = point ? privateKeyPem(key.get()) : std::string();
    if (pem.empty()) {
        say("no key could be made");
        return false;
    }
    NewFile privateFile(name + ".pem", 0600);
    if (!privateFile) return false;
    NewFile publicFile(name + ".pub", 0644);
    if (!publicFile) return false;
    const bool done = privateFile.fill(pem) && publicFile.fill(sshKeyLine(*point) + '\n');
    OPENSSL_cleanse(pem.data(), pem.size());
    if (!done) return false;
    privateFile.keep();
    publicFile.keep();
    std::printf("%s\n", fingerprintText(sshFingerprint(*point)).c_str());
    return true;
}

}  // namespace tarnwick::qvx
