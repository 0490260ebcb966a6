#include "volume_settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

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

SettingsReading broken(const std::string& problem) { return {{}, problem}; }

// Why a file that exists could not be read. Only a message depends on this second check of the file.
std::string whyRefused(const std::filesystem::path& file, const struct stat& status) {
    if (S_ISLNK(status.st_mode)) return "it is a link; put the file itself there";
    if (!S_ISREG(status.st_mode)) return "it is not a regular file";
    if (status.st_uid != 0) return "root does not own it; run chown root on it";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "group or others can write to it; run chmod go-w on it";
    if (::access(file.c_str(), R_OK) != 0) return std::string("cannot read it: ") + std::strerror(errno);
    return "it is not a property list with a dictionary as its root";
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
        if (reading.problem.empty() && !isRoleName(*role))
            reading.problem = "unknown role \"" + *role + "\" of " + key + "; the roles are " + roleNames();
    }
    return reading;
}

SettingsReading loadVolumeSettings(const std::filesystem::path& file) {
    SettingsReading reading;
    struct stat status {};
    if (const auto dictionary = readTrustedPropertyListFile(file))
        reading = readVolumeSettings(*dictionary);
    else if (::lstat(file.c_str(), &status) == 0)
        reading.problem = whyRefused(file, status);
    else if (errno != ENOENT)
        reading.problem = std::string("cannot read it: ") + std::strerror(errno);
    if (!reading.problem.empty()) reading.problem = file.native() + ": " + reading.problem;
    return reading;
}

}  // namespace tarnwick
