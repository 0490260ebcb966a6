// The service's thread against servers that do not do their part. Meant for the address and thread sanitizers.
#include "platform/assets/asset_service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <future>

#include "base/handle.h"
#include "platform/assets/asset_transfer.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// Accepts a connection and sends the answer, then a byte a tenth of a second, or nothing at all.
class BadServer {
public:
    explicit BadServer(const std::string& answer) {
        sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(listener_.get(), generic, length) | ::listen(listener_.get(), 4), 0);
        EXPECT_EQ(::getsockname(listener_.get(), generic, &length), 0);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/catalog.plist";
        thread_ = std::thread([this, answer] { run(answer); });
    }
    ~BadServer() {
        over_ = true;
        ::shutdown(listener_.get(), SHUT_RDWR);  // where nobody came
        thread_.join();
    }

    std::string url;
    std::promise<void> visited;

private:
    void run(const std::string& answer) {
        const FileDescriptor visitor(::accept(listener_.get(), nullptr, nullptr));
        ::send(visitor.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        visited.set_value();
        while (!over_) {
            ::poll(nullptr, 0, 100);
            if (!answer.empty()) ::send(visitor.get(), "x", 1, MSG_NOSIGNAL);
        }
    }

    FileDescriptor listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::atomic<bool> over_ = false;
    std::thread thread_;
};

TEST(AssetTransfer, EndsATrickleByRateAndByTotalTimeAndStopsAtTheFirstByteTooMany) {
    const auto fetch = [](const std::string& body, const TransferLimits& limits) {
        const BadServer server("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + body);
        std::size_t taken = 0;
        const auto sink = [&taken](std::string_view bytes) {
            taken += bytes.size();
            return AssetResult::success;
        };
        return std::pair(fetchUrl(server.url, limits, sink, {}), taken);
    };
    using namespace std::chrono_literals;
    EXPECT_EQ(fetch("12345", {.bytes = 5, .whenLarger = AssetResult::catalogTooLarge, .totalTime = 1h}),
              std::pair(AssetResult::catalogTooLarge, 5UL));
    EXPECT_EQ(fetch("", {.bytes = 1000, .totalTime = 1h, .rateWindow = 1s}).first, AssetResult::tooSlow);
    EXPECT_EQ(fetch("", {.bytes = 1000, .totalTime = 300ms}).first, AssetResult::tooSlow);
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
    const AssetServicePlaces places_{folder_.path / "service.plist", folder_.path / "store"};
};

constexpr auto stopped = static_cast<std::int64_t>(AssetResult::stopped);

TEST_F(Service, GoesWhileATransferHangsAndAnswersEveryRequest) {
    BadServer server("");
    configure(server.url);
    const auto codes = std::make_shared<std::vector<std::int64_t>>();
    {
        AssetService service(places_);
        for (int i = 0; i < 3; ++i)
            service.requestCatalogRefresh([codes](std::int64_t code) { codes->push_back(code); });
        server.visited.get_future().wait();
    }
    EXPECT_EQ(*codes, std::vector(3, stopped));
}

// A callback that does not return stands for a system call that does not: no stop reaches the thread.
TEST_F(Service, GoesWhileItsThreadCannotBeReached) {
    struct Meeting {
        std::promise<void> arrived, release, left;
    };
    const auto meeting = std::make_shared<Meeting>();
    {
        AssetService service(places_);
        service.requestCatalogRefresh([meeting](std::int64_t) {
            meeting->arrived.set_value();
            meeting->release.get_future().wait();
        });
        service.requestCatalogRefresh([meeting](std::int64_t code) {
            EXPECT_EQ(code, stopped);
            meeting->left.set_value();
        });
        meeting->arrived.get_future().wait();
    }
    // The thread outlives the service, and still finds all that it needs.
    meeting->release.set_value();
    meeting->left.get_future().wait();
}

TEST_F(Service, TellsAnAbsentConfigurationFromAnUnusableOne) {
    EXPECT_FALSE(AssetService(places_).concerns("t"));
    EXPECT_EQ(refresh(), AssetResult::success);
    configure("http://192.0.2.1/catalog.plist");
    EXPECT_EQ(refresh(), AssetResult::configurationUnusable);
    configure("file:///nowhere");
    EXPECT_EQ(refresh(), AssetResult::answerRefused);
    ::chmod(key_.c_str(), 0666);
    EXPECT_EQ(refresh(), AssetResult::keyUnusable);
    EXPECT_TRUE(AssetService(places_).concerns("t"));
    ::chmod(places_.configuration.c_str(), 0664);
    EXPECT_FALSE(AssetService(places_).concerns("t"));
}

}  // namespace
