#include "volume_consent.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "base/json_string.h"
#include "base/visible_text.h"
#include "platform/consent_record.h"
#include "record_file.h"
#include "volctl/listing.h"

namespace tarnwick {

namespace {

const char* wordFor(ConsentState state) {
    switch (state) {
        case ConsentState::Granted: return "granted";
        case ConsentState::ExplicitlyDenied: return "denied";
        case ConsentState::Indeterminate: break;
    }
    return "not decided";
}

void setDecision(VolumeConsent& consent, const PropertyListDictionary& record) {
    const auto decision = decideConsent(record);
    consent.state = wordFor(decision.state);
    if (decision.state != ConsentState::Indeterminate)
        consent.decidedBy = decision.fromSeed ? seedConsentKey : consentKey;
}

Result<std::optional<PropertyListDictionary>> readRecord(const Volume& volume) {
    const auto mounted = requireMounted(volume);
    return mounted ? readConsentRecord(volume.mountPoint) : mounted.error();
}

std::string shown(const std::string& text) { return text.empty() ? "-" : visibleText(text); }

std::vector<std::string> rowOf(const VolumeConsent& consent) {
    auto state = consent.state;
    if (!consent.reason.empty()) state += ": " + visibleText(consent.reason);
    if (consent.decidedBy == seedConsentKey) state += " by " + consent.decidedBy;
    return {shown(consent.device), shown(consent.mountPoint), state};
}

std::string jsonLine(const VolumeConsent& consent) {
    const std::array<std::pair<const char*, const std::string&>, 5> members{{{"device", consent.device},
                                                                             {"mount_point", consent.mountPoint},
                                                                             {"state", consent.state},
                                                                             {"reason", consent.reason},
                                                                             {"decided_by", consent.decidedBy}}};
    std::string line;
    for (const auto& [key, value] : members)
        if (!value.empty()) line += (line.empty() ? "{" : ", ") + jsonString(key) + ": " + jsonString(value);
    return line + "}\n";
}

}  // namespace

bool isDataVolume(const Volume& volume) { return volume.role == "Data"; }

Status requireMounted(const Volume& volume) {
    if (volume.locked) return Error{"locked", 0, volume.deviceIdentifier};
    return volume.mountPoint.empty() ? Error{"not mounted", 0, volume.deviceIdentifier} : Status();
}

VolumeConsent consentOf(const Volume& volume) {
    VolumeConsent consent{volume.deviceIdentifier, volume.mountPoint, "no record", {}, {}};
    if (!isDataVolume(volume)) {
        consent.state = "never captured";
        consent.reason = "its role is " + volume.role;
    } else if (const auto record = readRecord(volume); !record) {
        consent.state = "unreadable";
        consent.reason = record.error().text;
    } else if (*record) {
        setDecision(consent, **record);
    }
    return consent;
}

std::string consentTable(const std::vector<VolumeConsent>& volumes) {
    if (volumes.empty()) return {};
    std::vector<std::vector<std::string>> rows{{"DEVICE", "MOUNT POINT", "STATE"}};
    std::transform(volumes.begin(), volumes.end(), std::back_inserter(rows), rowOf);
    return alignedTable(rows);
}

std::string consentJson(const std::vector<VolumeConsent>& volumes) {
    std::string lines;
    for (const auto& consent : volumes) lines += jsonLine(consent);
    return lines;
}

}  // namespace tarnwick
