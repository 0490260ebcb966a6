// The consent record, in which the owner of a volume says whether diagnostic data may be collected from it: its path,
// its two keys and their meaning.
#pragma once

#include <optional>
#include <string_view>

#include "plist/property_list.h"

namespace tarnwick {

// Relative to the mount point of the volume.
inline constexpr std::string_view consentRecordPath =
    "Library/Application Support/FaultKeeper/DiagnosticMessagesHistory.plist";

// A value that is not a boolean counts as absent. If both keys are present, the seed key decides.
inline constexpr std::string_view consentKey = "AutoSubmit";
inline constexpr std::string_view seedConsentKey = "SeedAutoSubmit";

enum class ConsentState { Granted, ExplicitlyDenied, Indeterminate };

struct ConsentDecision {
    ConsentState state = ConsentState::Indeterminate;
    bool fromSeed = false;  // the seed key decided
};

ConsentDecision decideConsent(const PropertyListDictionary& record);

// The value under `key` if it is a boolean; a value of any other type counts as absent.
std::optional<bool> lookupBoolean(const PropertyListDictionary& dictionary, std::string_view key);

}  // namespace tarnwick
