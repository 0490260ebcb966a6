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

namespace tarnwick {

namespace {

using Row = std::array<std::string, 3>;

const char* wordFor(ConsentState state) {
    switch (state) {
        case ConsentState::Granted: return "granted";
        case ConsentState::ExplicitlyDenied: return "denied";
        case ConsentState::Indeterminate: break;
    }
    return "not decided";
}

void decide(VolumeConsent& consent, const PropertyListDictionary& record) {
    const auto decision = decideConsent(record);
    consent.state = wordFor(decision.state);
    if (decision.state != ConsentState::Indeterminate)
        consent.decidedBy = decision.fromSeed ? seedConsentKey : consentKey;
}

std::string shown(const std::string& text) { return text.empty() ? "-" : visibleText(text); }

Row rowOf(const VolumeConsent& consent) {
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

std::string obstacle(const Volume& volume) {
    if (volume.locked) return "locked";
    return volume.mountPoint.empty() ? "not mounted" : "";
}

VolumeConsent consentOf(const Volume& volume) {
    VolumeConsent consent{volume.deviceIdentifier, volume.mountPoint, {}, {}, {}};
    if (!isDataVolume(volume)) {
        consent.state = "never captured";
        consent.reason = "its role is " + volume.role;
        return consent;
    }
    consent.reason = obstacle(volume);
    try {
        const auto record = consent.reason.empty() ? readConsentRecord(volume.mountPoint) : std::nullopt;
        consent.state = consent.reason.empty() ? "no record" : "unreadable";
        if (record) decide(consent, *record);
    } catch (const RecordError& error) {
        consent.state = "unreadable";
        consent.reason = error.what();
    }
    return consent;
}

// Device names and mount points of listed volumes are plain ASCII, so a byte is a column.
std::string consentTable(const std::vector<VolumeConsent>& volumes) {
    if (volumes.empty()) return {};
    std::vector<Row> rows{{"DEVICE", "MOUNT POINT", "STATE"}};
    std::transform(volumes.begin(), volumes.end(), std::back_inserter(rows), rowOf);
    std::array<std::size_t, 2> widths{};
    for (const auto& row : rows)
        for (std::size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    std::string table;
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < widths.size(); ++column)
            table += row[column] + std::string(widths[column] + 2 - row[column].size(), ' ');
        table += row.back() + "\n";
    }
    return table;
}

std::string consentJson(const std::vector<VolumeConsent>& volumes) {
    std::string lines;
    for (const auto& consent : volumes) lines += jsonLine(consent);
    return lines;
}

}  // namespace tarnwick
