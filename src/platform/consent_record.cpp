#include "platform/consent_record.h"

namespace tarnwick {

namespace {

ConsentState stateOf(bool choice) { return choice ? ConsentState::Granted : ConsentState::ExplicitlyDenied; }

}  // namespace

ConsentDecision decideConsent(const PropertyListDictionary& record) {
    // The seed key decides even if it denies and the other key allows.
    if (const auto seed = lookupBoolean(record, seedConsentKey)) return {stateOf(*seed), true};
    if (const auto choice = lookupBoolean(record, consentKey)) return {stateOf(*choice), false};
    return {};
}

std::optional<bool> lookupBoolean(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* value = findValueAs<bool>(dictionary, key);
    return value ? std::optional(*value) : std::nullopt;
}

}  // namespace tarnwick
