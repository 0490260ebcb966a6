#include "encrypted_device.h"

#include <libcryptsetup.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/passphrase.h"

namespace tarnwick {

namespace {

using CryptDevice = std::unique_ptr<crypt_device, FreeWith<crypt_free>>;

constexpr int maxQuestions = 3;
constexpr const char* wrongPassphrase = "Wrong passphrase, try again. ";

// The first error message of a call of the library: it says more than its error numbers.
void keepMessage(int level, const char* message, void* kept) {
    auto& text = *static_cast<std::string*>(kept);
    if (level != CRYPT_LOG_ERROR || !text.empty()) return;
    text = message;
    while (!text.empty() && text.back() == '\n') text.pop_back();
}

Error libraryError(const std::string& what, int error, const std::string& message, const std::string& subject) {
    return {what + ": " + (message.empty() ? std::strerror(-error) : message), -error, subject};
}

// Loads the LUKS header of the device. The library writes its later messages to `message`.
Result<CryptDevice> readHeader(const BlockDevice& device, std::string& message) {
    const auto path = devicePath(device);
    if (!path) return path.error();
    crypt_device* raw = nullptr;
    if (const int error = crypt_init(&raw, path->c_str()); error < 0)
        return libraryError("cannot open the device", error, {}, device.name);
    CryptDevice opened(raw);
    crypt_set_log_callback(opened.get(), keepMessage, &message);
    // Without its locks the library does not repair a damaged copy of the header, so nothing is written.
    crypt_metadata_locking(opened.get(), 0);
    if (const int error = crypt_load(opened.get(), CRYPT_LUKS, nullptr); error < 0)
        return libraryError("no usable LUKS header", error, message, device.name);
    return opened;
}

// Memory that the library wipes when it is freed.
using SafeMemory = std::unique_ptr<void, FreeWith<crypt_safe_free>>;

// The volume key is decrypted first: whether a passphrase is right must not depend on what the kernel supports.
int activate(crypt_device* opened, const std::string& mapping, const Passphrase& passphrase) {
    const int size = crypt_get_volume_key_size(opened);
    if (size <= 0) return -EINVAL;
    auto keySize = static_cast<std::size_t>(size);
    const SafeMemory key(crypt_safe_alloc(keySize));
    if (!key) return -ENOMEM;
    const int slot = crypt_volume_key_get(opened, CRYPT_ANY_SLOT, static_cast<char*>(key.get()), &keySize,
                                          passphrase.data(), passphrase.size());
    if (slot < 0) return slot;
    return crypt_activate_by_volume_key(opened, mapping.c_str(), static_cast<const char*>(key.get()), keySize,
                                        CRYPT_ACTIVATE_READONLY);
}

}  // namespace

std::string mappingName(const std::string& deviceName) {
    auto name = "tarnwick-" + deviceName;
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
}

Status openEncryptedDevice(const BlockDevice& device, int keyDescriptor) {
    std::string message;
    const auto opened = readHeader(device, message);
    if (!opened) return opened.error();
    Passphrase passphrase;
    const int attempts = keyDescriptor < 0 ? maxQuestions : 1;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const std::string question = (attempt > 0 ? wrongPassphrase : "") + ("Passphrase for " + device.name + ": ");
        auto read = keyDescriptor < 0 ? askPassphrase(passphrase, question) : readPassphrase(passphrase, keyDescriptor);
        if (!read) return read;
        message.clear();
        const int result = activate(opened->get(), mappingName(device.name), passphrase);
        if (result >= 0) return {};
        if (result != -EPERM) return libraryError("cannot open the volume", result, message, device.name);
    }
    return Error{"wrong passphrase", EPERM, device.name};
}

Status closeEncryptedDevice(const std::string& mapping) {
    std::string message;
    crypt_set_log_callback(nullptr, keepMessage, &message);
    const int error = crypt_deactivate(nullptr, mapping.c_str());
    crypt_set_log_callback(nullptr, nullptr, nullptr);
    return error < 0 ? libraryError("cannot close the mapping", error, message, mapping) : Status();
}

}  // namespace tarnwick
