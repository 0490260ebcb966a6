#include "platform/assets/asset_catalog.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "base/handle.h"
#include "platform/assets/asset_configuration.h"

using namespace tarnwick;

namespace {

using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;

std::string publicPem(EVP_PKEY* key) {
    const std::unique_ptr<BIO, FreeWith<BIO_free_all>> out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PUBKEY(out.get(), key);
    char* text = nullptr;
    const auto length = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

std::string signedBy(EVP_PKEY* key, const std::string& bytes) {
    const std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    const auto* digest = EVP_PKEY_is_a(key, "ED25519") ? nullptr : EVP_sha256();
    EVP_DigestSignInit(context.get(), nullptr, digest, nullptr, key);
    std::vector<unsigned char> signature(512);
    auto length = signature.size();
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    EXPECT_EQ(EVP_DigestSign(context.get(), signature.data(), &length, data, bytes.size()), 1);
    return {signature.begin(), signature.begin() + static_cast<std::ptrdiff_t>(length)};
}

const std::string digestText(64, 'a');

std::string file(const std::string& path) {
    return "<dict><key>Path</key><string>" + path +
           "</string><key>Size</key><integer>3</integer><key>SHA256</key><string>" + digestText +
           "</string><key>URL</key><string>u</string></dict>";
}

std::string asset(const std::string& files, const std::string& type = "t") {
    return "<dict><key>Type</key><string>" + type + "</string><key>ContentVersion</key><integer>5</integer>" +
           "<key>Files</key><array>" + files + "</array></dict>";
}

std::string catalog(const std::string& assets) {
    return "<plist version=\"1.0\"><dict><key>Serial</key><integer>7</integer><key>Expiry</key>"
           "<date>2001-01-02T00:00:00Z</date><key>Assets</key><array>" +
           assets + "</array></dict></plist>";
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
}

AssetResult parse(const std::string& text) {
    AssetCatalog parsed;
    return parseCatalog(text, parsed);
}

TEST(AssetCatalog, BelievesOnlyASignatureOfTheTwoKindsOverTheRawBytes) {
    const Key p256(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const Key ed25519(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    const Key p384(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"));
    const auto bytes = catalog(asset(file("a")));
    AssetCatalog read;
    for (auto* key : {p256.get(), ed25519.get()}) {
        const SignedCatalog good{bytes, signedBy(key, bytes)};
        EXPECT_EQ(readCatalog(good, publicPem(key), read), AssetResult::success);
        EXPECT_EQ(readCatalog({bytes + " ", good.signature}, publicPem(key), read), AssetResult::signatureWrong);
        EXPECT_EQ(readCatalog({bytes, ""}, publicPem(key), read), AssetResult::signatureWrong);
        // Rubbish under a wrong signature is not looked at, under a right one it is refused for what it is.
        EXPECT_EQ(readCatalog({"rubbish", good.signature}, publicPem(key), read), AssetResult::signatureWrong);
        EXPECT_EQ(readCatalog({"rubbish", signedBy(key, "rubbish")}, publicPem(key), read),
                  AssetResult::catalogMalformed);
    }
    EXPECT_EQ(readCatalog({bytes, signedBy(p384.get(), bytes)}, publicPem(p384.get()), read), AssetResult::keyUnusable);
    EXPECT_EQ(readCatalog({bytes, signedBy(ed25519.get(), bytes)}, publicPem(p256.get()), read),
              AssetResult::signatureWrong);
    EXPECT_EQ(readCatalog({bytes, "x"}, "no key", read), AssetResult::keyUnusable);
}

TEST(AssetCatalog, ReadsWhatThePublisherWrote) {
    AssetCatalog read;
    ASSERT_EQ(parseCatalog(catalog(asset(file("sub/a") + file("b"))), read), AssetResult::success);
    EXPECT_EQ(read.serial, 7);
    EXPECT_EQ(read.expiry.time_since_epoch().count(), 978307200 + 86400);
    ASSERT_EQ(read.assets.size(), 1U);
    EXPECT_EQ(read.assets[0].version, (AssetVersion{5, 0}));  // an absent version counts as 0
    EXPECT_EQ(read.assets[0].files[0].path, "sub/a");
}

TEST(AssetCatalog, RefusesWhatIsMalformed) {
    const auto good = catalog(asset(file("a")));
    const std::vector<std::string> bad = {"",
                                          good.substr(0, good.size() - 1),
                                          "bplist00",
                                          catalog("<string>a</string>"),
                                          catalog(asset("")),
                                          catalog(asset(file("a") + file("a"))),
                                          catalog(asset(file("a/b") + file("a"))),
                                          catalog(asset(file("a")) + asset(file("b"))),
                                          catalog(asset(file("a"), ".t")),
                                          catalog(asset(file("a"), "../t")),
                                          replaced(good, "<integer>7<", "<integer>-7<"),
                                          replaced(good, "<integer>5<", "<integer>-5<"),
                                          replaced(good, "<integer>3<", "<integer>18446744073709551615<"),
                                          replaced(good, digestText, digestText + "a"),
                                          replaced(good, digestText, "G" + digestText.substr(1)),
                                          replaced(good, "<string>u<", "<string><"),
                                          replaced(good, "2001-01-02T00:00:00Z", "never"),
                                          replaced(good, "Serial", "Cereal")};
    for (const auto& text : bad) EXPECT_EQ(parse(text), AssetResult::catalogMalformed) << text;
    for (const auto* path : {"/a", "../a", "a/../b", "a//b", "a/", "", ".", "a/./b", "a&#10;b"})
        EXPECT_EQ(parse(catalog(asset(file(path)))), AssetResult::pathRefused) << path;
    EXPECT_FALSE(acceptableAssetPath(std::string_view("a\0b", 3)));
    EXPECT_FALSE(acceptableAssetPath(std::string(256, 'x')));
}

TEST(AssetUrls, StayWithTheCatalogsSchemeAndPlainHttpOnThisMachine) {
    for (const auto* url :
         {"https://host/c", "file:///srv/c", "http://127.0.0.1:8/c", "http://[::1]/", "HTTP://localhost/c"})
        EXPECT_TRUE(acceptableUrl(url)) << url;
    for (const auto* url : {"http://host/c", "http://127.0.0.1.host/", "http://127.0.0.1@host/", "ftp://127.0.0.1/",
                            "http://localhost.host/", "host/c", "", "http://128.0.0.1/", "http://0.0.0.0/"})
        EXPECT_FALSE(acceptableUrl(url)) << url;
    EXPECT_EQ(resolveUrl("https://host/a/c.plist?x", "b/f%20g"), "https://host/a/b/f%20g");
    EXPECT_EQ(resolveUrl("file:///srv/a/c.plist", "b/f"), "file:///srv/a/b/f");
    EXPECT_FALSE(resolveUrl("https://host/c", "file:///etc/passwd"));
    EXPECT_FALSE(resolveUrl("https://host/c", "http://127.0.0.1/"));
    EXPECT_FALSE(resolveUrl("http://127.0.0.1/c", "//host/f"));
}

}  // namespace
