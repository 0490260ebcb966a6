// The thread of the service against servers and callbacks that do not answer. Meant for the address and thread
// sanitizers.
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

// Accepts connections and never answers.
struct SilentServer {
    SilentServer() {
        sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(socket.get(), generic, length) | ::listen(socket.get(), 4), 0);
        EXPECT_EQ(::getsockname(socket.get(), generic, &length), 0);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/catalog.plist";
    }
    FileDescriptor accept() const { return FileDescriptor(::accept(socket.get(), nullptr, nullptr)); }

    FileDescriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string url;
};

// The program test covers too many bytes and wrong ones.
TEST(AssetTransfer, EndsBelowMinimumRateAndAfterTotalTime) {
    using namespace std::chrono_literals;
    const SilentServer server;
    for (const auto& [total, window] : {std::pair(3'600'000ms, 1s), std::pair(300ms, 3600s)})
        EXPECT_EQ(fetchUrl(server.url, {.bytes = 5, .totalTime = total, .rateWindow = window}, {}, {}).error(),
                  AssetError::tooSlow);
}

class Service : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only a configuration file of root is trusted";
    }
    void write(const fs::path& name, const std::string& text, mode_t mode = 0644) const {
        fs::create_directories((folder_.path / name).parent_path());
        std::ofstream(folder_.path / name) << text;
        ::chmod((folder_.path / name).c_str(), mode);
    }
    void configure(const std::string& url) const {
        write("service.plist", "<plist version=\"1.0\"><dict><key>CatalogURL</key><string>" + url +
                                   "</string><key>CatalogKey</key><string>" + (folder_.path / "key.pem").native() +
                                   "</string></dict></plist>");
    }
    // The newest version of the asset "t", relative to the folder of the test, or why there is none.
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

    TemporaryFolder folder_;
    const AssetServicePlaces places_{folder_.path / "service.plist", folder_.path / "store", folder_.path / "factory"};
};

constexpr auto stopped = static_cast<std::int64_t>(AssetError::stopped);

TEST_F(Service, AnswersEveryRequestWhenStoppedDuringTransfer) {
    const SilentServer server;
    write("key.pem", "read after the catalog only");
    configure(server.url);
    FileDescriptor connection;
    const auto codes = std::make_shared<std::vector<std::int64_t>>();
    {
        AssetService service(places_);
        for (int i = 0; i < 3; ++i) service.requestCatalogRefresh([=](std::int64_t code) { codes->push_back(code); });
        connection = server.accept();
    }
    EXPECT_EQ(*codes, std::vector(3, stopped));
}

// A callback that does not return is like a system call that does not: no stop reaches the thread. It outlives the
// service and must not access it.
TEST_F(Service, IsDestroyedWhileItsThreadIsBlocked) {
    static std::promise<void> blocked, release, answered;
    {
        AssetService service(places_);
        service.requestCatalogRefresh([](std::int64_t) {
            blocked.set_value();
            release.get_future().wait();
        });
        service.requestCatalogRefresh([](std::int64_t code) {
            EXPECT_EQ(code, stopped);
            answered.set_value();
        });
        blocked.get_future().wait();
    }
    release.set_value();
    answered.get_future().wait();
}

TEST_F(Service, RejectsUntrustedConfigurationAndKey) {
    const std::tuple<const char*, const char*, mode_t, AssetError> cases[] = {
        {"plain HTTP to another machine", "http://192.0.2.1/c", 0644, AssetError::configurationUnusable},
        {"key that others can write", "file:///nowhere", 0666, AssetError::keyUnusable},
        {"neither", "file:///nowhere", 0644, AssetError::answerRefused},
    };
    for (const auto& [name, url, keyMode, expected] : cases) {
        configure(url);
        write("key.pem", "x", keyMode);
        std::promise<std::int64_t> code;
        AssetService service(places_);
        service.requestCatalogRefresh([&code](std::int64_t result) { code.set_value(result); });
        EXPECT_EQ(code.get_future().get(), static_cast<std::int64_t>(expected)) << name;
        EXPECT_TRUE(service.configured());
    }
    ::chmod(places_.configuration.c_str(), 0664);
    EXPECT_FALSE(AssetService(places_).configured());
}

TEST_F(Service, UsesTheNewestVersionAndTheStoreBeforeTheFactory) {
    EXPECT_EQ(inUse(), "none");
    const std::pair<std::string, const char*> steps[] = {{"factory/t/0.1", "factory/t/0.1"},
                                                         {"store/t/0.0", "factory/t/0.1"},
                                                         {"store/t/0.1", "store/t/0.1"},
                                                         {"store/t/1.0", "store/t/1.0"}};
    for (const auto& [installed, used] : steps) {
        write(installed + "/f", "x");
        EXPECT_EQ(inUse(), used) << installed;
    }
}

TEST_F(Service, IgnoresUntrustedFactoryFolderAndFailsOnUntrustedStore) {
    for (const auto* file : {"factory/t/0.1/f", "store/t/0.0/f"}) write(file, "x");
    for (const auto* folder : {"factory", "factory/t", "factory/t/0.1"}) {
        ::chmod((folder_.path / folder).c_str(), 0777);
        EXPECT_EQ(inUse(), "store/t/0.0") << folder;
        ::chmod((folder_.path / folder).c_str(), 0755);
    }
    ::chmod(places_.store.c_str(), 0777);
    EXPECT_EQ(inUse(), "code 4");
}

}  // namespace
