// The service's thread against servers that do not do their part. Meant for the address and thread sanitizers.
#include "platform/assets/asset_service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <future>

#include "base/handle.h"
#include "platform/assets/asset_transfer.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// Takes connections, and says nothing of itself.
struct Listener {
    Listener() {
        sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(socket.get(), generic, length) | ::listen(socket.get(), 4), 0);
        EXPECT_EQ(::getsockname(socket.get(), generic, &length), 0);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/catalog.plist";
    }
    FileDescriptor visitor() const { return FileDescriptor(::accept(socket.get(), nullptr, nullptr)); }

    FileDescriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string url;
};

// Too many bytes, and wrong ones, are for the program test.
TEST(AssetTransfer, EndsByRateAndByTotalTime) {
    using namespace std::chrono_literals;
    const Listener listener;
    const auto sink = [](std::string_view) { return AssetResult::success; };
    for (const auto& [total, window] : {std::pair(3'600'000ms, 1s), std::pair(300ms, 3600s)})
        EXPECT_EQ(fetchUrl(listener.url, {.bytes = 5, .totalTime = total, .rateWindow = window}, sink, {}),
                  AssetResult::tooSlow);
}

class Service : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "a configuration counts only when it is root's own";
        write(key_, "not looked at before the catalog is there");
    }
    static void write(const fs::path& file, const std::string& text) {
        std::ofstream(file) << text;
        ::chmod(file.c_str(), 0644);
    }
    void configure(const std::string& url) const {
        write(places_.configuration, "<plist version=\"1.0\"><dict><key>CatalogURL</key><string>" + url +
                                         "</string><key>CatalogKey</key><string>" + key_.native() +
                                         "</string></dict></plist>");
    }
    [[nodiscard]] AssetResult refresh() const {
        std::promise<std::int64_t> answer;
        AssetService service(places_);
        service.requestCatalogRefresh([&answer](std::int64_t code) { answer.set_value(code); });
        return static_cast<AssetResult>(answer.get_future().get());
    }

    TemporaryFolder folder_;
    const fs::path key_ = folder_.path / "key.pem";
    // Installs a version of the asset "t" by hand.
    static void put(const fs::path& root, const std::string& version) {
        fs::create_directories(root / "t" / version);
        write(root / "t" / version / "f", "x");
    }
    // What the service would use of the asset "t": its newest version, below the test's folder, or why there is none.
    [[nodiscard]] std::string inUse() const {
        const AssetService service(places_);
        auto answer = service.queryAssetsNow("t");
        if (answer.resultCode != 0) return "code " + std::to_string(answer.resultCode);
        if (answer.assets.empty()) return "none";
        const auto newest = *std::max_element(answer.assets.begin(), answer.assets.end(),
                                              [](const auto& a, const auto& b) { return a.version < b.version; });
        EXPECT_EQ(service.installState(newest), assetStateInstalled);
        return service.localDirectory(newest)->lexically_relative(folder_.path);
    }

    const AssetServicePlaces places_{folder_.path / "service.plist", folder_.path / "store", folder_.path / "factory"};
};

constexpr auto stopped = static_cast<std::int64_t>(AssetResult::stopped);

TEST_F(Service, GoesWhileATransferHangsAndAnswersEveryRequest) {
    const Listener listener;
    configure(listener.url);
    FileDescriptor visitor;
    const auto codes = std::make_shared<std::vector<std::int64_t>>();
    {
        AssetService service(places_);
        for (int i = 0; i < 3; ++i) service.requestCatalogRefresh([=](std::int64_t code) { codes->push_back(code); });
        visitor = listener.visitor();
    }
    EXPECT_EQ(*codes, std::vector(3, stopped));
}

// A callback that does not return stands for a system call that does not: no stop reaches the thread, which outlives
// the service and still finds all that it needs.
TEST_F(Service, GoesWhileItsThreadCannotBeReached) {
    static std::promise<void> arrived, release, left;
    {
        AssetService service(places_);
        service.requestCatalogRefresh([](std::int64_t) {
            arrived.set_value();
            release.get_future().wait();
        });
        service.requestCatalogRefresh([](std::int64_t code) {
            EXPECT_EQ(code, stopped);
            left.set_value();
        });
        arrived.get_future().wait();
    }
    release.set_value();
    left.get_future().wait();
}

TEST_F(Service, RefusesAConfigurationOrAKeyThatIsNotToBeTrusted) {
    configure("http://192.0.2.1/catalog.plist");
    EXPECT_EQ(refresh(), AssetResult::configurationUnusable);
    configure("file:///nowhere");
    ::chmod(key_.c_str(), 0666);
    EXPECT_EQ(refresh(), AssetResult::keyUnusable);
    EXPECT_TRUE(AssetService(places_).configured());
    ::chmod(places_.configuration.c_str(), 0664);
    EXPECT_FALSE(AssetService(places_).configured());
}

TEST_F(Service, UsesTheFactoryVersionUntilTheStoreHasTheSameOrANewerOne) {
    EXPECT_EQ(inUse(), "none");
    put(places_.factory, "0.1");
    EXPECT_EQ(inUse(), "factory/t/0.1");
    put(places_.store, "0.0");
    EXPECT_EQ(inUse(), "factory/t/0.1");
    put(places_.store, "0.1");
    EXPECT_EQ(inUse(), "store/t/0.1");
    put(places_.store, "1.0");
    EXPECT_EQ(inUse(), "store/t/1.0");
}

TEST_F(Service, IgnoresAFactoryFolderThatOthersCanWriteButFailsOnSuchAStore) {
    put(places_.factory, "0.1");
    put(places_.store, "0.0");
    for (const auto& folder : {places_.factory, places_.factory / "t", places_.factory / "t/0.1"}) {
        ::chmod(folder.c_str(), 0777);
        EXPECT_EQ(inUse(), "store/t/0.0") << folder;
        ::chmod(folder.c_str(), 0755);
    }
    ::chmod(places_.store.c_str(), 0777);
    EXPECT_EQ(inUse(), "code 4");
}

}  // namespace
