#include "platform/consent_record.h"

#include <gtest/gtest.h>

namespace tarnwick {

namespace {

struct Case {
    const char* name;
    const char* entries;
    ConsentState state;
    bool fromSeed;
};

constexpr Case cases[] = {
    {"no key", "", ConsentState::Indeterminate, false},
    {"granted", "<key>AutoSubmit</key><true/>", ConsentState::Granted, false},
    {"denied", "<key>AutoSubmit</key><false/>", ConsentState::ExplicitlyDenied, false},
    {"seed grants alone", "<key>SeedAutoSubmit</key><true/>", ConsentState::Granted, true},
    {"seed denies alone", "<key>SeedAutoSubmit</key><false/>", ConsentState::ExplicitlyDenied, true},
    {"seed grants against the choice", "<key>SeedAutoSubmit</key><true/><key>AutoSubmit</key><false/>",
     ConsentState::Granted, true},
    {"seed denies against the choice", "<key>SeedAutoSubmit</key><false/><key>AutoSubmit</key><true/>",
     ConsentState::ExplicitlyDenied, true},
    {"seed of another type", "<key>SeedAutoSubmit</key><integer>0</integer><key>AutoSubmit</key><true/>",
     ConsentState::Granted, false},
    {"choice of another type", "<key>AutoSubmit</key><string>true</string>", ConsentState::Indeterminate, false},
    {"keys in other letter case", "<key>autosubmit</key><true/>", ConsentState::Indeterminate, false},
};

TEST(ConsentRecord, PrefersTheSeedKeyAndIgnoresOtherTypes) {
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const auto record = parsePropertyListText("<plist><dict>" + std::string(each.entries) + "</dict></plist>");
        ASSERT_TRUE(record);
        const auto decision = decideConsent(*record);
        EXPECT_EQ(decision.state, each.state);
        EXPECT_EQ(decision.fromSeed, each.fromSeed);
    }
}

}  // namespace

}  // namespace tarnwick
