#include "volume_settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "roles.h"

namespace tarnwick {

namespace {

// Copies the value of `key`, if there is one, to `target`. False when it has another type.
template <typename T>
bool readValue(const PropertyListDictionary& dictionary, std::string_view key, T& target) {
    const auto* value = findValue(dictionary, key);
    const auto* typed = value ? value->as<T>() : nullptr;
    if (typed) target = *typed;
    return typed || !value;
}

SettingsReading broken(const std::string& problem) { return {{}, Error{problem}}; }

// Why a file could not be read. Only a message depends on this second check of the file.
Status whyRefused(const std::filesystem::path& file) {
    struct stat status {};
    if (::lstat(file.c_str(), &status) != 0) return errno == ENOENT ? Status() : systemError(errno, file);
    const auto error = [&](const char* text) { return Error{text, 0, file}; };
    if (S_ISLNK(status.st_mode)) return error("a link; put the file itself there");
    if (!S_ISREG(status.st_mode)) return error("not a regular file");
    if (status.st_uid != 0) return error("not owned by root; run chown root on it");
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return error("writable by group or others; run chmod go-w on it");
    if (::access(file.c_str(), R_OK) != 0) return systemError(errno, file);
    return error("not a property list with a dictionary as its root");
}

}  // namespace

SettingsReading readVolumeSettings(const PropertyListDictionary& dictionary) {
    SettingsReading reading;
    auto& settings = reading.settings;
    PropertyListDictionary roles;
    if (!readValue(dictionary, "Roles", roles)) return broken("Roles is not a dictionary");
    if (!readValue(dictionary, "PrebootDirectory", settings.prebootDirectory))
        return broken("PrebootDirectory is not a string");
    if (!readValue(dictionary, "IncludeRemovable", settings.includeRemovable))
        return broken("IncludeRemovable is not a boolean");
    for (const auto& [key, value] : roles) {
        const auto* role = value.as<std::string>();
        if (!role) return broken("the role of " + key + " is not a string");
        settings.roles[key] = *role;
        if (reading.status && !isRoleName(*role))
            reading.status = Error{"unknown role \"" + *role + "\" of " + key + "; the roles are " + roleNames()};
    }
    return reading;
}

SettingsReading loadVolumeSettings(const std::filesystem::path& file) {
    const auto dictionary = readTrustedPropertyListFile(file);
    if (!dictionary) return {{}, whyRefused(file)};
    auto reading = readVolumeSettings(*dictionary);
    if (!reading.status) reading.status = Error{reading.status.error().text, 0, file};
    return reading;
}

}  // namespace tarnwick
