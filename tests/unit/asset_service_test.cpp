// The thread of the service against servers and callbacks that do not answer. Meant for the address and thread
// sanitizers.
#include "platform/assets/asset_service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <future>

#include "base/handle.h"
#include "platform/assets/asset_transfer.h"
#include "plist/xml_property_list.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// Accepts connections and never answers.
struct SilentServer {
    SilentServer() {
        sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(socket.get(), generic, length) | ::listen(socket.get(), 4), 0);
        EXPECT_EQ(::getsockname(socket.get(), generic, &length), 0);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/catalog.plist";
    }
    FileDescriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string url;
};

// The program test covers too many bytes and wrong ones. For libcurl, a time of 0 is no limit.
TEST(AssetTransfer, EndsBelowMinimumRateAfterTotalTimeAndAtOnceWhenItsDeadlineHasPassed) {
    using namespace std::chrono_literals;
    const SilentServer server;
    const auto now = std::chrono::steady_clock::now();
    for (const auto& [url, deadline, window] : {std::tuple(server.url, now + 1h, 1s),
                                                {server.url, now + 300ms, 3600s},
                                                {std::string("file:///proc/version"), now, 3600s}})
        EXPECT_EQ(fetchUrl(url, {.bytes = 5, .deadline = deadline, .rateWindow = window}, {}, {}).error(),
                  AssetError::tooSlow);
}

TEST(AssetTransfer, HasTimeForTheSignedSizesAtTheMinimumRate) {
    const auto timeFor = [](std::vector<std::uint64_t> sizes) {
        Asset asset;
        for (const auto size : sizes) asset.files.push_back({.path = {}, .size = size, .sha256 = {}, .url = {}});
        return assetDownloadTime(asset).count();
    };
    EXPECT_EQ(timeFor({1}), 60);
    EXPECT_EQ(timeFor({1 << 20, 1 << 14}), 60 + 64 + 1);
    EXPECT_EQ(timeFor({INT64_MAX, INT64_MAX, INT64_MAX}), 1740) << "callers wait no longer than 1800";
}

constexpr auto stopped = static_cast<std::int64_t>(AssetError::stopped);

class Service : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only a configuration file of root is trusted";
    }
    void configure(const std::string& url, mode_t keyMode = 0644) const {
        const auto key = folder_.write("key.pem", "not a key, but the catalog is fetched first");
        ::chmod(key.c_str(), keyMode);
        folder_.write(
            "service.plist",
            writeXmlPropertyList({PropertyListDictionary{{"CatalogURL", {url}}, {"CatalogKey", {key.native()}}}}));
    }
    // The newest version of the asset "t", relative to the folder of the test, or the result code if there is none.
    [[nodiscard]] std::string newest() const {
        const AssetService service(places_);
        const auto answer = service.queryAssetsNow("t");
        if (answer.assets.empty()) return std::to_string(answer.resultCode);
        const auto asset = std::ranges::max(answer.assets, {}, &Asset::version);
        EXPECT_EQ(service.installState(asset), assetStateInstalled);
        return service.localDirectory(asset)->lexically_relative(folder_.path);
    }

    TemporaryFolder folder_;
    const AssetServicePlaces places_{folder_.path / "service.plist", folder_.path / "store", folder_.path / "factory"};
};

TEST_F(Service, AnswersEveryRequestWhenStoppedDuringTransfer) {
    const SilentServer server;
    configure(server.url);
    FileDescriptor connection;
    std::vector<std::int64_t> codes;
    {
        AssetService service(places_);
        for (int i = 0; i < 3; ++i) service.requestCatalogRefresh([&](auto code) { codes.push_back(code); });
        connection = FileDescriptor(::accept(server.socket.get(), nullptr, nullptr));
    }
    EXPECT_EQ(codes, std::vector(3, stopped));
}

// A callback that does not return is like a system call that does not: no stop reaches the thread. It outlives the
// service and must not access it.
TEST_F(Service, IsDestroyedWhileItsThreadIsBlocked) {
    static std::promise<void> blocked, release;
    static std::promise<std::int64_t> answered;
    {
        AssetService service(places_);
        service.requestCatalogRefresh([](auto) { blocked.set_value(), release.get_future().wait(); });
        service.requestCatalogRefresh([](auto code) { answered.set_value(code); });
        blocked.get_future().wait();
    }
    release.set_value();
    EXPECT_EQ(answered.get_future().get(), stopped);
}

TEST_F(Service, RejectsUntrustedConfigurationAndKey) {
    const auto refresh = [this](const char* url, mode_t keyMode) {
        configure(url, keyMode);
        std::promise<std::int64_t> code;
        AssetService service(places_);
        service.requestCatalogRefresh([&code](auto result) { code.set_value(result); });
        return static_cast<AssetError>(code.get_future().get());
    };
    EXPECT_EQ(refresh("http://192.0.2.1/c", 0644), AssetError::configurationUnusable) << "plain HTTP";
    EXPECT_EQ(refresh("file:///nowhere", 0666), AssetError::keyUnusable) << "others can write the key";
    ::chmod(places_.configuration.c_str(), 0664);
    EXPECT_FALSE(AssetService(places_).configured());
}

TEST_F(Service, UsesTheNewestTrustedVersionAndFailsOnUntrustedStore) {
    const auto installed = [this](const char* asset, mode_t factoryMode) {
        folder_.write(std::string(asset) + "/f", "x");
        ::chmod(places_.factory.c_str(), factoryMode);
        return newest();
    };
    EXPECT_EQ(installed("factory/t/0.1", 0755), "factory/t/0.1");
    EXPECT_EQ(installed("store/t/0.0", 0777), "store/t/0.0");
    EXPECT_EQ(installed("store/t/0.1", 0755), "store/t/0.1");
    ::chmod(places_.store.c_str(), 0777);
    EXPECT_EQ(newest(), "4");
}

}  // namespace
