#include "platform/info_dictionary.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

using namespace tarnwick;

namespace {

TEST(OwnInfoDictionary, ContainsDefaultDirectivesInOrderAndRecipientKey) {
    std::ostringstream expected, embedded;
    expected << std::ifstream(TEST_DATA "/default-directives.txt").rdbuf();
    const auto spec = lookupOwnInfoValue("CaptureSpec"), key = lookupOwnInfoValue("archive_public_key");
    ASSERT_TRUE(spec && spec->as<PropertyListArray>() && key);
    for (const auto& each : *spec->as<PropertyListArray>())
        for (const char* field : {"BasePath", "Expression", "DocString"})
            embedded << textFromPlatformString(findValue(*each.as<PropertyListDictionary>(), field)) << '\n';
    EXPECT_EQ(embedded.str(), expected.str());
    const auto line = textFromPlatformString(&*key);
    EXPECT_TRUE(line.size() == 160 && line.starts_with("ecdsa-sha2-nistp256 AAAA")) << line;
}

}  // namespace
