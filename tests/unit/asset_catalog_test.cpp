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

TEST(AssetCatalog, RefusesWhatIsMalformedAndKeysOfAnotherKind) {
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
    for (const auto* path : {"/a", "../a", "a/../b", "a//b", "a/", "", ".", "a/./b", "a&#10;b"})
        EXPECT_EQ(parse(catalog(file(path))), AssetResult::pathRefused) << path;
    EXPECT_FALSE(acceptableAssetPath(std::string_view("a\0b", 3)) || acceptableAssetPath(std::string(256, 'x')));

    const std::string p384 =
        "-----BEGIN PUBLIC KEY-----\n"
        "MHYwEAYHKoZIzj0CAQYFK4EEACIDYgAEHLUAWoIlOJmKGTSLHwRzufw91yb7Wi+i\n"
        "OQcHVfO7HmH+U1faf4YF8lhvwFqssz86e/fgYw3PtWiLSA+94CQQn2xKmlMRlBev\n"
        "dbIzRaWFLzu/T3DLYUiqr2wRmhbFazTF\n"
        "-----END PUBLIC KEY-----\n";
    AssetCatalog read;
    for (const auto& key : {p384, std::string("no key")})
        EXPECT_EQ(readCatalog({good, "x"}, key, read), AssetResult::keyUnusable) << key;
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
