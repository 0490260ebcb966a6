#include "encrypted_device.h"

#include <libcryptsetup.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/passphrase.h"

namespace tarnwick {

namespace {

using CryptDevice = std::unique_ptr<crypt_device, FreeWith<crypt_free>>;

constexpr int tries = 3;

// The last message of the library: it says more than its error numbers.
void keepMessage(int level, const char* message, void* kept) {
    auto& text = *static_cast<std::string*>(kept);
    if (level != CRYPT_LOG_ERROR || !text.empty()) return;
    text = message;
    while (!text.empty() && text.back() == '\n') text.pop_back();
}

std::string problemText(const std::string& what, int error, const std::string& message) {
    return what + ": " + (message.empty() ? std::strerror(-error) : message);
}

CryptDevice loadHeader(const BlockDevice& device, std::string& message, std::string& problem) {
    const auto path = devicePath(device);
    crypt_device* raw = nullptr;
    if (path.empty()) {
        problem = "no device node for " + device.name;
        return nullptr;
    }
    if (const int error = crypt_init(&raw, path.c_str()); error < 0) {
        problem = problemText("cannot open " + path, error, message);
        return nullptr;
    }
    CryptDevice opened(raw);
    crypt_set_log_callback(opened.get(), keepMessage, &message);
    // Without its locks the library does not repair a damaged copy of the header, so nothing is written.
    crypt_metadata_locking(opened.get(), 0);
    if (const int error = crypt_load(opened.get(), CRYPT_LUKS, nullptr); error < 0) {
        problem = problemText("no usable LUKS header on " + device.name, error, message);
        return nullptr;
    }
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

std::string openEncryptedDevice(const BlockDevice& device, int keyDescriptor) {
    std::string message;
    std::string problem;
    const auto opened = loadHeader(device, message, problem);
    if (!opened) return problem;
    Passphrase passphrase;
    for (int left = keyDescriptor < 0 ? tries : 1; left > 0; --left) {
        problem = keyDescriptor < 0 ? askPassphrase(passphrase, "Passphrase for " + device.name + ": ")
                                    : readPassphrase(passphrase, keyDescriptor);
        if (!problem.empty()) return problem;
        message.clear();
        const int result = activate(opened.get(), mappingName(device.name), passphrase);
        if (result >= 0) return {};
        if (result != -EPERM) return problemText("cannot open " + device.name, result, message);
        if (left > 1) std::fputs("volctl: wrong passphrase, try again\n", stderr);
    }
    return "wrong passphrase for " + device.name;
}

std::string closeEncryptedDevice(const std::string& mapping) {
    std::string message;
    crypt_set_log_callback(nullptr, keepMessage, &message);
    const int error = crypt_deactivate(nullptr, mapping.c_str());
    crypt_set_log_callback(nullptr, nullptr, nullptr);
    return error < 0 ? problemText("cannot close " + mapping, error, message) : std::string();
}

}  // namespace tarnwick
