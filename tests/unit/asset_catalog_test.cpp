// Good and changed signatures are tried by the program test, with a catalog from a web server.
#include "platform/assets/asset_catalog.h"

#include <gtest/gtest.h>

#include "platform/assets/asset_configuration.h"

using namespace tarnwick;

namespace {

const std::string digestText(64, 'a');

std::string file(const std::string& path) {
    return "<dict><key>Path</key><string>" + path +
           "</string><key>Size</key><integer>3</integer><key>SHA256</key><string>" + digestText +
           "</string><key>URL</key><string>u</string></dict>";
}

std::string catalog(const std::string& files, const std::string& more = "") {
    return "<plist version=\"1.0\"><dict><key>Serial</key><integer>7</integer><key>Expiry</key>"
           "<date>2001-01-02T00:00:00Z</date><key>Assets</key><array><dict><key>Type</key><string>t</string>"
           "<key>ContentVersion</key><integer>5</integer><key>Files</key><array>" +
           files + "</array></dict>" + more + "</array></dict></plist>";
}

AssetResult parse(const std::string& text) {
    AssetCatalog parsed;
    return parseCatalog(text, parsed);
}

TEST(AssetCatalog, RefusesWhatIsMalformed) {
    const auto good = catalog(file("sub/a") + file("b"));
    ASSERT_EQ(parse(good), AssetResult::success);
    const auto with = [&](const std::string& from, const std::string& to) {
        auto text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    for (const auto& text : {std::string(), catalog(""), catalog(file("a") + file("a")),
                             catalog(file("a/b") + file("a")), catalog(file("a"), "<string>a</string>"),
                             with("<integer>7<", "<integer>-7<"), with("<integer>5<", "<integer>-5<"),
                             with("<integer>3<", "<integer>18446744073709551615<"), with("aaaa", "aaaaa"),
                             with("aaaa", "Gaaa"), with("<string>u<", "<string><"), with("<string>t<", "<string>.t<"),
                             with("<string>t<", "<string>a/t<"), with("2001-01-02", "never"), with("Serial", "Cereal")})
        EXPECT_EQ(parse(text), AssetResult::catalogMalformed) << text;
    // Where paths lead is for asset_catalog_fuzz.
    for (const auto& path : {std::string("../a"), std::string("a&#10;b"), std::string(256, 'x')})
        EXPECT_EQ(parse(catalog(file(path))), AssetResult::pathRefused) << path;

    AssetCatalog read;
    EXPECT_EQ(readCatalog({good, "x"}, "no key", read), AssetResult::keyUnusable);
}

TEST(AssetUrls, StayWithTheCatalogsSchemeAndPlainHttpOnThisMachine) {
    for (const auto* url :
         {"https://host/c", "file:///srv/c", "http://127.0.0.1:8/c", "http://[::1]/", "HTTP://localhost/"})
        EXPECT_TRUE(acceptableUrl(url)) << url;
    for (const auto* url : {"http://host/c", "http://127.0.0.1.host/", "http://127.0.0.1@host/", "ftp://127.0.0.1/",
                            "http://localhost.host/", "host/c", "", "http://128.0.0.1/"})
        EXPECT_FALSE(acceptableUrl(url)) << url;
    EXPECT_EQ(resolveUrl("https://host/a/c.plist?x", "b/f%20g"), "https://host/a/b/f%20g");
    EXPECT_FALSE(resolveUrl("https://host/c", "file:///etc/passwd"));
    EXPECT_FALSE(resolveUrl("https://host/c", "http://127.0.0.1/"));
    EXPECT_FALSE(resolveUrl("http://127.0.0.1/c", "//host/f"));
}

}  // namespace
