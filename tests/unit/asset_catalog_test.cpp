// The content of catalogs is checked by asset_catalog_fuzz, and by the program test with a web server.
#include <gtest/gtest.h>

#include "platform/assets/asset_configuration.h"

using namespace tarnwick;

TEST(AssetUrls, StayWithTheCatalogsSchemeAndPlainHttpOnThisMachine) {
    for (const auto* url :
         {"https://host/c", "file:///srv/c", "http://127.0.0.1:8/c", "http://[::1]/", "HTTP://localhost/"})
        EXPECT_TRUE(acceptableUrl(url)) << url;
    for (const auto* url : {"http://host/c", "http://127.0.0.1.host/", "http://127.0.0.1@host/", "ftp://127.0.0.1/",
                            "http://localhost.host/", "host/c", "", "http://128.0.0.1/"})
        EXPECT_FALSE(acceptableUrl(url)) << url;
    EXPECT_EQ(resolveUrl("https://host/a/c.plist?x", "b/f%20g"), "https://host/a/b/f%20g");
    EXPECT_FALSE(resolveUrl("https://host/c", "file:///etc/passwd"));
    EXPECT_FALSE(resolveUrl("http://127.0.0.1/c", "//host/f"));
}
