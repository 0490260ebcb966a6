// The service's thread against servers that do not do their part. Meant for the address and thread sanitizers.
#include "platform/assets/asset_service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <future>

#include "base/handle.h"
#include "platform/assets/asset_transfer.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// Accepts connections and sends the answer, then a byte a tenth of a second, or nothing at all.
class BadServer {
public:
    explicit BadServer(std::string answer, bool trickle = false) : answer_(std::move(answer)), trickle_(trickle) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(listener_.get(), generic, length), 0);
        EXPECT_EQ(::listen(listener_.get(), 4), 0);
        EXPECT_EQ(::getsockname(listener_.get(), generic, &length), 0);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { run(); });
    }
    ~BadServer() {
        over_ = true;
        thread_.join();
    }

    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/catalog.plist"; }
    void waitForVisitor() { visited_.get_future().wait(); }

private:
    void run() {
        FileDescriptor visitor;
        while (!over_) {
            pollfd wanted{listener_.get(), POLLIN, 0};
            const bool ready = ::poll(&wanted, visitor ? 0 : 1, 100) > 0;
            if (!visitor && ready) {
                visitor = FileDescriptor(::accept(listener_.get(), nullptr, nullptr));
                ::send(visitor.get(), answer_.data(), answer_.size(), MSG_NOSIGNAL);
                visited_.set_value();
            } else if (visitor && trickle_) {
                ::send(visitor.get(), "x", 1, MSG_NOSIGNAL);
            }
        }
    }

    FileDescriptor listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string answer_;
    bool trickle_;
    int port_ = 0;
    std::atomic<bool> over_ = false;
    std::promise<void> visited_;
    std::thread thread_;
};

const std::string start = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n";

TEST(AssetTransfer, EndsATrickleByRateAndByTotalTimeAndStopsAtTheFirstByteTooMany) {
    const auto fetch = [](const BadServer& server, TransferLimits limits) {
        std::string taken;
        const auto sink = [&taken](std::string_view bytes) {
            taken += bytes;
            return AssetResult::success;
        };
        const auto result = fetchUrl(server.url(), limits, sink, {});
        return std::pair(result, taken.size());
    };
    TransferLimits limits{.bytes = 5, .whenLarger = AssetResult::catalogTooLarge, .totalTime = std::chrono::hours(1)};
    EXPECT_EQ(fetch(BadServer(start + "12345", true), limits), std::pair(AssetResult::catalogTooLarge, 5UL));
    limits.bytes = 1000;
    limits.rateWindow = std::chrono::seconds(1);
    EXPECT_EQ(fetch(BadServer(start, true), limits).first, AssetResult::tooSlow);
    limits = {.bytes = 1000, .totalTime = std::chrono::milliseconds(300)};
    EXPECT_EQ(fetch(BadServer(start, true), limits).first, AssetResult::tooSlow);
}

class Service : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "a configuration counts only when it is root's own";
        std::string pattern = testing::TempDir() + "service.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
        write("key.pem", "not looked at before the catalog is there");
    }
    void TearDown() override {
        if (!root_.empty()) fs::remove_all(root_);
    }

    void write(const fs::path& name, const std::string& text) const {
        std::ofstream(root_ / name) << text;
        ::chmod((root_ / name).c_str(), 0644);
    }

    void configure(const std::string& url) const {
        write("service.plist", "<plist version=\"1.0\"><dict><key>CatalogURL</key><string>" + url +
                                   "</string><key>CatalogKey</key><string>" + (root_ / "key.pem").native() +
                                   "</string></dict></plist>");
    }

    [[nodiscard]] AssetServicePlaces places() const { return {root_ / "service.plist", root_ / "store"}; }

    [[nodiscard]] AssetResult refresh() const {
        std::promise<std::int64_t> answer;
        AssetService service(places());
        service.requestCatalogRefresh([&answer](std::int64_t code) { answer.set_value(code); });
        return static_cast<AssetResult>(answer.get_future().get());
    }

    fs::path root_;
};

TEST_F(Service, GoesWhileATransferHangsAndAnswersEveryRequest) {
    BadServer server("");
    configure(server.url());
    const auto codes = std::make_shared<std::vector<std::int64_t>>();
    {
        AssetService service(places());
        for (int i = 0; i < 3; ++i)
            service.requestCatalogRefresh([codes](std::int64_t code) { codes->push_back(code); });
        server.waitForVisitor();
    }
    EXPECT_EQ(*codes, std::vector<std::int64_t>(3, static_cast<std::int64_t>(AssetResult::stopped)));
}

// A callback that does not return stands for a system call that does not: no stop reaches the thread.
TEST_F(Service, GoesWhileItsThreadCannotBeReached) {
    struct Meeting {
        std::promise<void> arrived, release, left;
    };
    const auto meeting = std::make_shared<Meeting>();
    {
        AssetService service(places());
        service.requestCatalogRefresh([meeting](std::int64_t) {
            meeting->arrived.set_value();
            meeting->release.get_future().wait();
        });
        service.requestCatalogRefresh([meeting](std::int64_t code) {
            EXPECT_EQ(code, static_cast<std::int64_t>(AssetResult::stopped));
            meeting->left.set_value();
        });
        meeting->arrived.get_future().wait();
    }
    // The thread outlives the service, and still finds all that it needs.
    meeting->release.set_value();
    meeting->left.get_future().wait();
}

TEST_F(Service, TellsAnAbsentConfigurationFromAnUnusableOne) {
    EXPECT_FALSE(AssetService(places()).concerns("t"));
    EXPECT_EQ(refresh(), AssetResult::success);
    configure("http://192.0.2.1/catalog.plist");
    EXPECT_EQ(refresh(), AssetResult::configurationUnusable);
    configure("file:///nowhere");
    EXPECT_EQ(refresh(), AssetResult::answerRefused);
    ::chmod((root_ / "key.pem").c_str(), 0666);
    EXPECT_EQ(refresh(), AssetResult::keyUnusable);
    EXPECT_TRUE(AssetService(places()).concerns("t"));
    ::chmod((root_ / "service.plist").c_str(), 0664);
    EXPECT_FALSE(AssetService(places()).concerns("t"));
}

}  // namespace
