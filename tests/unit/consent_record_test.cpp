#include "platform/consent_record.h"

#include <gtest/gtest.h>

namespace tarnwick {

TEST(ConsentRecord, PrefersTheSeedKeyAndIgnoresOtherTypes) {
    using enum ConsentState;
    const std::tuple<std::string, ConsentState, bool> cases[] = {
        {"<key>SeedAutoSubmit</key><true/><key>AutoSubmit</key><false/>", Granted, true},
        {"<key>SeedAutoSubmit</key><false/><key>AutoSubmit</key><true/>", ExplicitlyDenied, true},
        {"<key>SeedAutoSubmit</key><integer>0</integer><key>AutoSubmit</key><true/>", Granted, false},
        {"<key>AutoSubmit</key><string>true</string>", Indeterminate, false},
    };
    for (const auto& [entries, state, fromSeed] : cases) {
        const auto decision = decideConsent(*parsePropertyListText("<plist><dict>" + entries + "</dict></plist>"));
        EXPECT_TRUE(decision.state == state && decision.fromSeed == fromSeed) << entries;
    }
}

}  // namespace tarnwick
