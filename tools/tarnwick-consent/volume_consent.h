// The decision that the consent record of a volume contains, and its output.
#pragma once

#include <string>
#include <vector>

#include "base/error.h"
#include "volctl/volumes.h"

namespace tarnwick {

struct VolumeConsent {
    std::string device;      // empty: not known
    std::string mountPoint;  // empty: not mounted
    std::string state;       // "granted", "denied", "not decided", "no record", "unreadable" or "never captured"
    std::string reason;      // why it is unreadable or never captured; else empty
    std::string decidedBy;   // the key of the record that decided; else empty
};

// Whether a capture includes the volume, if its owner consents.
bool isDataVolume(const Volume& volume);

// Fails with the text "locked" or "not mounted" when no record can be read or changed for that reason.
Status requireMounted(const Volume& volume);

// Reads the record of a mounted data volume.
VolumeConsent consentOf(const Volume& volume);

// One line for each volume under a line of titles; empty without a volume.
std::string consentTable(const std::vector<VolumeConsent>& volumes);

// One JSON object a line.
std::string consentJson(const std::vector<VolumeConsent>& volumes);

}  // namespace tarnwick
