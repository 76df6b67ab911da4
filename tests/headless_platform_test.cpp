// The headless platform against the real machine: threads, timers, files, sockets on 127.0.0.1.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <numeric>
#include <regex>
#include <thread>
#include <vector>

#include "core/base/errors.hpp"
#include "core/ports/clock.hpp"
#include "platform/headless/device_facts.hpp"
#include "platform/headless/executors.hpp"
#include "platform/headless/http_client.hpp"
#include "platform/headless/key_value_store.hpp"
#include "platform/headless/lifecycle.hpp"
#include "platform/headless/path_monitor.hpp"
#include "platform/headless/runtime.hpp"
#include "platform/headless/web_socket.hpp"
#include "tools/devserver/server.hpp"

namespace virela::headless {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
namespace fs = std::filesystem;

template <class Predicate>
bool waitFor(Predicate done, std::chrono::milliseconds limit = 3000ms) {
    auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

std::string threadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

class TempDir {
  public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "virela-headless-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    void write(const fs::path& relative, const std::string& text) const {
        fs::create_directories((path_ / relative).parent_path());
        std::ofstream(path_ / relative, std::ios::binary) << text;
    }

  private:
    fs::path path_;
};

// Sets an environment variable for one scope.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value != nullptr) {
            ::setenv(name, value, 1);
        } else {
            ::unsetenv(name);
        }
    }
    ~ScopedEnv() {
        if (old_) {
            ::setenv(name_, old_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

// ---------------------------------------------------------------------------------------------
// Executors

class MainLoopTest : public ::testing::Test {
  protected:
    std::shared_ptr<WorkerPool> workers = std::make_shared<WorkerPool>(2);
    MainLoop loop{workers};
};

TEST_F(MainLoopTest, RunsPostedWorkInOrderOnTheNamedMainThread) {
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<bool> allOnMain = true;
    for (int i = 0; i < 200; ++i) {
        loop.post([&, i] {
            if (!loop.isCurrent() || threadName() != "main") allOnMain = false;
            std::lock_guard lock(mutex);
            order.push_back(i);
        });
    }
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard lock(mutex);
        return order.size() == 200;
    }));
    EXPECT_TRUE(allOnMain);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_FALSE(loop.isCurrent());

    std::atomic<int> background{0};
    loop.postBackground([&] { background = loop.isCurrent() ? 1 : 2; });
    ASSERT_TRUE(waitFor([&] { return background != 0; }));
    EXPECT_EQ(background, 2);
}

TEST_F(MainLoopTest, DelayedWorkRunsByDueTimeAndNeverOnceCancelled) {
    std::mutex mutex;
    std::vector<std::string> ran;
    auto record = [&](const std::string& what) {
        return [&, what] {
            std::lock_guard lock(mutex);
            ran.push_back(what);
        };
    };
    auto start = std::chrono::steady_clock::now();
    auto late = loop.postAfter(0.08, record("late"));
    auto early = loop.postAfter(0.02, record("early"));
    auto cancelled = loop.postAfter(0.04, record("cancelled"));
    cancelled->cancel();
    // Cancelled from main by work that runs first; dropping a handle does not cancel.
    auto victim = loop.postAfter(0.06, record("victim"));
    loop.postAfter(0.03, [&] { victim->cancel(); }).reset();
    loop.postAfter(0.05, record("dropped")).reset();
    // Nonsense delays behave like "now" or "never", not like a crash.
    loop.postAfter(std::nan(""), record("nan"));
    auto never = loop.postAfter(1e300, record("never"));

    ASSERT_TRUE(waitFor([&] {
        std::lock_guard lock(mutex);
        return ran.size() == 4;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 80ms);
    std::this_thread::sleep_for(50ms);
    std::lock_guard lock(mutex);
    EXPECT_EQ(ran, (std::vector<std::string>{"nan", "early", "dropped", "late"}));
    late->cancel();  // after it ran: harmless
    never->cancel();
}

TEST_F(MainLoopTest, RepeatKeepsTimeAndStopsWhenCancelled) {
    std::atomic<int> ticks{0};
    auto start = std::chrono::steady_clock::now();
    auto timer = loop.repeat(0.02, [&] {
        ++ticks;
        std::this_thread::sleep_for(8ms);  // slow ticks must not push the schedule back
    });
    std::this_thread::sleep_for(410ms);
    timer->cancel();
    int seen = ticks;
    auto elapsed = std::chrono::steady_clock::now() - start;
    int expected = static_cast<int>(elapsed / 20ms);
    EXPECT_GE(seen, expected - 3);
    EXPECT_LE(seen, expected + 1);
    std::this_thread::sleep_for(60ms);
    EXPECT_LE(ticks, seen + 1);  // at most one tick that had already started

    // A tick may cancel its own timer; a zero interval is floored instead of spinning.
    std::atomic<int> selfTicks{0};
    std::atomic<VirelaCancellable*> self{nullptr};
    auto handle = loop.repeat(0, [&] {
        if (++selfTicks != 3) return;
        while (self == nullptr) std::this_thread::yield();
        self.load()->cancel();
    });
    self = handle.get();
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(selfTicks, 3);
}

TEST_F(MainLoopTest, SerialQueueRunsOneAtATimeInOrderOffMain) {
    auto queue = workers->makeSerialQueue("test.serial");
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped = false;
    std::atomic<bool> onMain = false;
    std::vector<int> order;  // touched only on the queue
    for (int i = 0; i < 100; ++i) {
        queue->post([&, i] {
            if (++inside > 1) overlapped = true;
            if (loop.isCurrent()) onMain = true;
            order.push_back(i);
            std::this_thread::sleep_for(100us);
            --inside;
        });
    }
    std::atomic<bool> timed = false;
    auto cancelled = queue->postAfter(0.01, [&] { order.push_back(-1); });
    cancelled->cancel();
    queue->postAfter(0.02, [&] { timed = order.size() == 100; });
    ASSERT_TRUE(waitFor([&] { return timed.load(); }));
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(onMain);
    std::vector<int> expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);
}

TEST(RuntimeTest, RunOnMainReturnsResultsAndExceptionsAndNests) {
    TempDir dir;
    RuntimeOptions options;
    options.stateDirectory = dir.path();
    options.install = false;
    Runtime runtime(options);
    EXPECT_EQ(runtime.runOnMain([&] { return runtime.executor()->isCurrent(); }), true);
    EXPECT_EQ(runtime.runOnMain([&] { return runtime.runOnMain([] { return 7; }); }), 7);
    EXPECT_THROW(runtime.runOnMain([]() -> int { throw std::runtime_error("boom"); }),
                 std::runtime_error);
    runtime.executor()->shutdown();
    EXPECT_THROW(runtime.runOnMain([] { return 1; }), std::future_error);
}

// ---------------------------------------------------------------------------------------------
// Key-value store

TEST(JsonFileStoreTest, PersistsAcrossInstancesAndSurvivesCorruptFiles) {
    TempDir dir;
    auto file = dir.path() / "nested" / "state" / "defaults.json";
    {
        JsonFileStore store(file);
        EXPECT_EQ(store.string("com.virela.installId.k"), std::nullopt);
        store.setString("com.virela.installId.k", "ABC");
        store.setString("other", "x\"y\n");
        store.setString("other", "z");
    }
    {
        JsonFileStore store(file);
        EXPECT_EQ(store.string("com.virela.installId.k"), "ABC");
        EXPECT_EQ(store.string("other"), "z");
    }
    for (const char* bad : {"{not json", "", "[1,2]", "\xff\xfe"}) {
        dir.write(file.lexically_relative(dir.path()), bad);
        JsonFileStore store(file);
        EXPECT_EQ(store.string("other"), std::nullopt) << bad;
        store.setString("fresh", "1");
        EXPECT_EQ(JsonFileStore(file).string("fresh"), "1") << bad;
    }
    // Values of other types are not strings to us.
    dir.write(file.lexically_relative(dir.path()), R"({"n": 5, "s": "ok"})");
    JsonFileStore typed(file);
    EXPECT_EQ(typed.string("n"), std::nullopt);
    EXPECT_EQ(typed.string("s"), "ok");
    // No temporary files are left behind.
    int entries = 0;
    for ([[maybe_unused]] auto& entry : fs::directory_iterator(file.parent_path())) ++entries;
    EXPECT_EQ(entries, 1);
}

TEST(JsonFileStoreTest, ConcurrentWritersLoseNothing) {
    TempDir dir;
    auto file = dir.path() / "defaults.json";
    {
        JsonFileStore store(file);
        std::vector<std::thread> writers;
        writers.reserve(3);
        for (int t = 0; t < 3; ++t) {
            writers.emplace_back([&, t] {
                for (int i = 0; i < 20; ++i) {
                    store.setString(std::to_string(t) + "." + std::to_string(i), "v");
                }
            });
        }
        for (auto& w : writers) w.join();
    }
    JsonFileStore reread(file);
    for (int t = 0; t < 3; ++t) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(reread.string(std::to_string(t) + "." + std::to_string(i)), "v");
        }
    }
}

TEST(JsonFileStoreTest, DefaultPathFollowsTheEnvironment) {
    ScopedEnv home("HOME", "/home/u");
    ScopedEnv xdg("XDG_STATE_HOME", nullptr);
    ScopedEnv own("VIRELA_STATE_DIR", nullptr);
    EXPECT_EQ(defaultKeyValuePath(), fs::path("/home/u/.local/state/virela/defaults.json"));
    ScopedEnv xdgSet("XDG_STATE_HOME", "/x/state");
    EXPECT_EQ(defaultKeyValuePath(), fs::path("/x/state/virela/defaults.json"));
    ScopedEnv ownSet("VIRELA_STATE_DIR", "/v");
    EXPECT_EQ(defaultKeyValuePath(), fs::path("/v/defaults.json"));
}

// ---------------------------------------------------------------------------------------------
// HTTP client against raw sockets on 127.0.0.1

// Accepts connections one after another and hands each socket to `serve`.
class LoopbackServer {
  public:
    explicit LoopbackServer(std::function<void(int)> serve) : serve_(std::move(serve)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* raw = reinterpret_cast<sockaddr*>(&address);
        if (::bind(listener_, raw, length) != 0 || ::listen(listener_, 8) != 0 ||
            ::getsockname(listener_, raw, &length) != 0) {
            throw std::runtime_error("cannot listen on 127.0.0.1");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { acceptLoop(); });
    }
    ~LoopbackServer() {
        stop_ = true;
        thread_.join();
        ::close(listener_);
    }
    int port() const { return port_; }
    Url url(const std::string& path, const std::string& scheme = "http") const {
        return *Url::parse(scheme + "://127.0.0.1:" + std::to_string(port_) + path);
    }
    // The first request received, as raw bytes.
    std::string request() {
        std::lock_guard lock(mutex_);
        return request_;
    }

    // Reads one request: the header block plus a Content-Length body.
    std::string readRequest(int fd) {
        std::string data;
        char buffer[4096];
        std::size_t need = std::string::npos;
        while (data.size() < need) {
            ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            data.append(buffer, static_cast<std::size_t>(n));
            auto end = data.find("\r\n\r\n");
            if (need == std::string::npos && end != std::string::npos) {
                std::smatch match;
                std::string head = data.substr(0, end);
                std::size_t body = 0;
                if (std::regex_search(head, match, std::regex("Content-Length: (\\d+)"))) {
                    body = std::stoul(match[1]);
                }
                need = end + 4 + body;
            }
        }
        std::lock_guard lock(mutex_);
        if (request_.empty()) request_ = data;
        return data;
    }
    static void reply(int fd, const std::string& bytes) {
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    // Waits until the client hangs up (or the server stops).
    void hold(int fd) {
        char byte;
        while (!stop_) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20) > 0 && ::recv(fd, &byte, 1, 0) <= 0) return;
        }
    }

  private:
    void acceptLoop() {
        while (!stop_) {
            pollfd p{listener_, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            timeval limit{5, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            serve_(fd);
            ::close(fd);
        }
    }

    std::function<void(int)> serve_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_ = false;
    std::mutex mutex_;
    std::string request_;
    std::thread thread_;
};

// Collects the one outcome of a request and counts calls of `done`.
struct Completion {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<HttpOutcome> outcome;
    int calls = 0;

    std::function<void(HttpOutcome)> callback() {
        return [this](HttpOutcome o) {
            std::lock_guard lock(mutex);
            ++calls;
            outcome = std::move(o);
            changed.notify_all();
        };
    }
    HttpOutcome wait() {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, 10s, [&] { return outcome.has_value(); })) {
            throw std::runtime_error("request never completed");
        }
        return *outcome;
    }
};

std::optional<NetworkError::Kind> errorKind(const HttpOutcome& outcome) {
    if (!outcome.error) return std::nullopt;
    try {
        std::rethrow_exception(outcome.error);
    } catch (const NetworkError& e) {
        return e.kind();
    } catch (...) {
        return std::nullopt;
    }
}

HttpRequest post(Url url, std::string body = "") {
    HttpRequest request;
    request.url = std::move(url);
    request.body = std::move(body);
    return request;
}

TEST(BeastHttpClientTest, SendsTheRequestAsGivenAndReturnsStatusHeadersAndBody) {
    LoopbackServer server([&](int fd) {
        server.readRequest(fd);
        LoopbackServer::reply(fd,
                              "HTTP/1.1 201 Created\r\nX-Zeta: 1\r\nX-Alpha: two words\r\n"
                              "Content-Length: 6\r\n\r\nhi\0\x01\xff!"s);
    });
    BeastHttpClient client;
    auto request = post(server.url("/v1/sdk/devices?x=1"), std::string("{\"a\":1}\0z", 9));
    request.headers = {{"X-Virela-Key", "k"}, {"Content-Type", "application/json"}};
    Completion completion;
    client.send(request, completion.callback());
    auto outcome = completion.wait();

    ASSERT_TRUE(outcome.response) << describe(outcome.error);
    EXPECT_EQ(outcome.response->status, 201);
    EXPECT_EQ(outcome.response->headers,
              (HttpHeaders{{"X-Zeta", "1"}, {"X-Alpha", "two words"}, {"Content-Length", "6"}}));
    EXPECT_EQ(outcome.response->body, std::string("hi\0\x01\xff!", 6));

    auto sent = server.request();
    EXPECT_TRUE(sent.starts_with("POST /v1/sdk/devices?x=1 HTTP/1.1\r\n")) << sent;
    EXPECT_NE(sent.find("\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n"),
              std::string::npos);
    EXPECT_NE(sent.find("\r\nX-Virela-Key: k\r\n"), std::string::npos);
    EXPECT_NE(sent.find("\r\nContent-Length: 9\r\n"), std::string::npos);
    EXPECT_EQ(sent.find("Content-Type", sent.find("Content-Type") + 1), std::string::npos);
    EXPECT_TRUE(sent.ends_with(std::string("\r\n\r\n{\"a\":1}\0z", 13)));
    EXPECT_EQ(completion.calls, 1);
}

TEST(BeastHttpClientTest, MapsTransportFailuresToKinds) {
    BeastHttpClient client;
    int closedPort = 0;
    {
        LoopbackServer gone([](int) {});
        closedPort = gone.port();
    }
    Completion refused;
    client.send(post(*Url::parse("http://127.0.0.1:" + std::to_string(closedPort) + "/")),
                refused.callback());
    EXPECT_EQ(errorKind(refused.wait()), NetworkError::Kind::refused);

    LoopbackServer silent([&](int fd) { silent.hold(fd); });
    auto slow = post(silent.url("/"));
    slow.timeoutSeconds = 0.3;
    Completion timedOut;
    auto start = std::chrono::steady_clock::now();
    client.send(slow, timedOut.callback());
    EXPECT_EQ(errorKind(timedOut.wait()), NetworkError::Kind::timedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);

    Completion cancelled;
    auto handle = client.send(post(silent.url("/")), cancelled.callback());
    std::this_thread::sleep_for(50ms);
    handle->cancel();
    handle->cancel();
    EXPECT_EQ(errorKind(cancelled.wait()), NetworkError::Kind::cancelled);

    // TLS towards a peer that only speaks plain HTTP.
    LoopbackServer plain(
        [](int fd) { LoopbackServer::reply(fd, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"); });
    Completion insecure;
    client.send(post(plain.url("/", "https")), insecure.callback());
    EXPECT_EQ(errorKind(insecure.wait()), NetworkError::Kind::secureConnection);

    // A hang-up without any reply is a lost connection, not a malformed reply.
    LoopbackServer hangUp([&](int fd) { hangUp.readRequest(fd); });
    Completion lost;
    client.send(post(hangUp.url("/")), lost.callback());
    EXPECT_EQ(errorKind(lost.wait()), NetworkError::Kind::other);

    std::this_thread::sleep_for(50ms);
    for (auto* c : {&refused, &timedOut, &cancelled, &insecure, &lost}) EXPECT_EQ(c->calls, 1);
}

TEST(BeastHttpClientTest, NonHttpRepliesCompleteWithNeitherResponseNorError) {
    for (std::string garbage :
         {"SSH-2.0-OpenSSH_9.2\r\n", "<html>hello</html>\r\n\r\n", "HTTP/1.1 abc\r\n\r\n"}) {
        LoopbackServer server([&](int fd) {
            server.readRequest(fd);
            LoopbackServer::reply(fd, garbage);
        });
        BeastHttpClient client;
        Completion completion;
        client.send(post(server.url("/")), completion.callback());
        auto outcome = completion.wait();
        EXPECT_FALSE(outcome.response) << garbage;
        EXPECT_FALSE(outcome.error) << garbage << ": " << describe(outcome.error);
    }
}

TEST(BeastHttpClientTest, RejectsBadInputWithoutSendingIt) {
    std::atomic<int> connections{0};
    LoopbackServer server([&](int fd) {
        ++connections;
        server.readRequest(fd);
        LoopbackServer::reply(
            fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(100, 'x'));
    });
    HttpClientOptions options;
    options.maxBodyBytes = 10;
    BeastHttpClient client(options);

    auto smuggled = post(server.url("/"));
    smuggled.headers = {{"X-A", "1\r\nX-Injected: 2"}};
    auto badMethod = post(server.url("/"));
    badMethod.method = "GET /evil";
    auto ftp = post(*Url::parse("ftp://127.0.0.1/"));
    for (const auto& request : {smuggled, badMethod, ftp}) {
        Completion completion;
        client.send(request, completion.callback());
        EXPECT_EQ(errorKind(completion.wait()), NetworkError::Kind::other);
    }
    EXPECT_EQ(connections, 0);

    Completion tooLarge;
    client.send(post(server.url("/")), tooLarge.callback());
    EXPECT_EQ(errorKind(tooLarge.wait()), NetworkError::Kind::other);
}

TEST(BeastHttpClientTest, ShutdownCompletesRequestsInFlightAndLaterOnesAsCancelled) {
    LoopbackServer silent([&](int fd) { silent.hold(fd); });
    BeastHttpClient client;
    Completion inFlight;
    client.send(post(silent.url("/")), inFlight.callback());
    std::this_thread::sleep_for(50ms);
    client.shutdown();
    EXPECT_EQ(errorKind(inFlight.wait()), NetworkError::Kind::cancelled);
    Completion after;
    client.send(post(silent.url("/")), after.callback());
    EXPECT_EQ(errorKind(after.wait()), NetworkError::Kind::cancelled);
}

// ---------------------------------------------------------------------------------------------
// Device facts, path monitor, lifecycle

TEST(LinuxDeviceFactsTest, ReadsTheMachine) {
    auto settings = std::make_shared<HostSettings>();
    LinuxDeviceFacts facts(settings);
    utsname info{};
    ::uname(&info);
    EXPECT_EQ(facts.machine(), info.machine);
    EXPECT_EQ(facts.systemName(), "Linux");
    EXPECT_TRUE(std::regex_match(facts.systemVersion(), std::regex(R"(\d+\.\d+)")))
        << facts.systemVersion();
    EXPECT_FALSE(facts.model().empty());
    EXPECT_GT(facts.availableMemoryBytes(), 0);
    EXPECT_GT(facts.availableStorageBytes().value_or(0), 0);
    auto main = facts.readMainThreadFacts();
    EXPECT_EQ(main.screenWidthPixels, 1170);
    EXPECT_EQ(main.textSize, ContentSizeCategory::large);
    settings->update([](HeadlessSettings& s) { s.appearance = Appearance::dark; });
    EXPECT_EQ(facts.readMainThreadFacts().appearance, Appearance::dark);
}

TEST(LinuxDeviceFactsTest, LocaleComesFromTheEnvironment) {
    LinuxDeviceFacts facts(nullptr);
    ScopedEnv all("LC_ALL", nullptr);
    ScopedEnv messages("LC_MESSAGES", nullptr);
    ScopedEnv lang("LANG", nullptr);
    EXPECT_EQ(facts.localeIdentifier(), "en_US");
    ::setenv("LANG", "fr_FR.UTF-8@euro", 1);
    EXPECT_EQ(facts.localeIdentifier(), "fr_FR");
    ::setenv("LC_MESSAGES", "pt_BR", 1);
    EXPECT_EQ(facts.localeIdentifier(), "pt_BR");
    ::setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_EQ(facts.localeIdentifier(), "en_US");
    ::setenv("LC_ALL", "de_DE.ISO-8859-1", 1);
    EXPECT_EQ(facts.localeIdentifier(), "de_DE");
}

TEST(LinuxDeviceFactsTest, ReadsBatteryMemoryModelAndVendorIdFromSysfs) {
    TempDir root;
    root.write("sys/class/power_supply/AC/type", "Mains\n");
    root.write("sys/class/power_supply/hidpp_battery_0/type", "Battery\n");
    root.write("sys/class/power_supply/hidpp_battery_0/scope", "Device\n");
    root.write("sys/class/power_supply/hidpp_battery_0/capacity", "10\n");
    root.write("sys/class/power_supply/BAT0/type", "Battery\n");
    root.write("sys/class/power_supply/BAT0/capacity", "85\n");
    root.write("sys/class/power_supply/BAT0/status", "Charging\n");
    root.write("sys/class/dmi/id/product_name", "  ThinkPad X1 Carbon \n");
    root.write("proc/meminfo", "MemTotal: 100 kB\nMemAvailable:    2048 kB\n");
    root.write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    auto settings = std::make_shared<HostSettings>();
    settings->update([](HeadlessSettings& s) { s.appId = "com.example.app"; });
    LinuxDeviceFacts facts(settings, root.path());

    auto main = facts.readMainThreadFacts();
    EXPECT_DOUBLE_EQ(main.batteryLevel, 0.85);
    EXPECT_EQ(main.batteryState, 2);
    EXPECT_EQ(facts.model(), "ThinkPad X1 Carbon");
    EXPECT_EQ(facts.availableMemoryBytes(), 2048 * 1024);

    auto id = facts.vendorId();
    ASSERT_TRUE(id);
    EXPECT_TRUE(
        std::regex_match(*id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                         "[0-9A-F]{12}")))
        << *id;
    EXPECT_EQ(facts.vendorId(), id);
    settings->update([](HeadlessSettings& s) { s.appId = "com.example.other"; });
    EXPECT_NE(facts.vendorId(), id);

    fs::remove_all(root.path() / "sys/class/power_supply/BAT0");
    root.write("sys/class/dmi/id/product_name", "\n");
    root.write("proc/meminfo", "MemAvailable: lots\n");
    root.write("etc/machine-id", "uninitialized\n");
    main = facts.readMainThreadFacts();
    EXPECT_EQ(main.batteryLevel, -1);
    EXPECT_EQ(main.batteryState, 0);
    EXPECT_EQ(facts.model(), "Linux");
    EXPECT_EQ(facts.availableMemoryBytes(), 0);
    EXPECT_EQ(facts.vendorId(), std::nullopt);
}

TEST(InterfacePathMonitorTest, DeliversFirstPathThenOnlyChangesUntilCancelled) {
    WorkerPool workers(2);
    auto queue = workers.makeSerialQueue("test.path");
    std::atomic<int> reads{0};
    std::atomic<bool> wifi = false;
    InterfacePathMonitor::Options options;
    options.pollSeconds = 0.01;
    options.read = [&] {
        ++reads;
        return NetworkPath{true, wifi.load(), false};
    };
    InterfacePathMonitor monitor(options);
    std::mutex mutex;
    std::vector<NetworkPath> updates;
    monitor.start(queue, [&](const NetworkPath& path) {
        std::lock_guard lock(mutex);
        updates.push_back(path);
    });
    ASSERT_TRUE(waitFor([&] { return reads > 5; }));
    wifi = true;
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard lock(mutex);
        return updates.size() == 2;
    }));
    monitor.cancel();
    wifi = false;
    std::this_thread::sleep_for(50ms);
    std::lock_guard lock(mutex);
    EXPECT_EQ(updates, (std::vector<NetworkPath>{{true, false, false}, {true, true, false}}));

    // The one-shot probe's pattern: the real interfaces, cancelled from inside the first update.
    InterfacePathMonitor real;
    std::atomic<int> realUpdates{0};
    real.start(queue, [&](const NetworkPath&) {
        ++realUpdates;
        real.cancel();
    });
    ASSERT_TRUE(waitFor([&] { return realUpdates == 1; }));
}

TEST(HeadlessLifecycleTest, NotifiesObserversOnMainAndExpiresBackgroundTasks) {
    auto workers = std::make_shared<WorkerPool>(1);
    auto main = std::make_shared<MainLoop>(workers);
    HeadlessLifecycle lifecycle(main, 0.05);
    std::atomic<int> background{0};
    std::atomic<int> foreground{0};
    std::atomic<bool> offMain = false;
    auto onBackground = lifecycle.observe(AppEvent::didEnterBackground, [&] {
        if (!main->isCurrent()) offMain = true;
        ++background;
    });
    auto onForeground = lifecycle.observe(AppEvent::willEnterForeground, [&] { ++foreground; });
    lifecycle.enterForeground();  // already in the foreground: nothing
    lifecycle.enterBackground();
    lifecycle.enterBackground();
    lifecycle.enterForeground();
    ASSERT_TRUE(waitFor([&] { return foreground == 1; }));
    EXPECT_EQ(background, 1);
    EXPECT_FALSE(offMain);
    onBackground.reset();
    lifecycle.enterBackground();
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(background, 1);

    std::atomic<int> expired{0};
    auto ended = lifecycle.beginBackgroundTask([&] { expired += 10; });
    auto expiring = lifecycle.beginBackgroundTask([&] { expired += main->isCurrent() ? 1 : 100; });
    EXPECT_GT(expiring, ended);
    EXPECT_NE(ended, AppLifecycle::invalidBackgroundTask);
    EXPECT_EQ(lifecycle.activeBackgroundTasks(), (std::vector{ended, expiring}));
    lifecycle.endBackgroundTask(ended);
    lifecycle.endBackgroundTask(ended);
    lifecycle.endBackgroundTask(AppLifecycle::invalidBackgroundTask);
    ASSERT_TRUE(waitFor([&] { return expired != 0; }));
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(expired, 1);
    EXPECT_TRUE(lifecycle.activeBackgroundTasks().empty());
}

// ---------------------------------------------------------------------------------------------
// WebSocket client against the local backend

// Collects the values a completion is called with; at(i) waits for the i-th.
template <class T>
class Results {
  public:
    std::function<void(T)> add() {
        return [this](T value) {
            std::lock_guard lock(mutex_);
            values_.push_back(std::move(value));
            changed_.notify_all();
        };
    }
    T at(std::size_t index) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, 10s, [&] { return values_.size() > index; })) {
            throw std::runtime_error("completion never called");
        }
        return values_[index];
    }
    std::size_t size() {
        std::lock_guard lock(mutex_);
        return values_.size();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<T> values_;
};

struct OpenRecorder : SocketDelegate {
    void socketDidOpen(const VirelaSocket& socket,
                       const std::optional<std::string>& protocol) override {
        opened = &socket;
        protocols.add()(protocol);
    }
    std::atomic<const VirelaSocket*> opened = nullptr;
    Results<std::optional<std::string>> protocols;
};

std::optional<NetworkError> networkErrorIn(const std::exception_ptr& error) {
    if (!error) return std::nullopt;
    try {
        std::rethrow_exception(error);
    } catch (const NetworkError& e) {
        return e;
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<NetworkError> networkErrorIn(const SocketReceiveResult& result) {
    const auto* error = std::get_if<std::exception_ptr>(&result);
    return error ? networkErrorIn(*error) : std::nullopt;
}

std::optional<SocketMessage> messageIn(const SocketReceiveResult& result) {
    const auto* message = std::get_if<SocketMessage>(&result);
    return message ? std::optional(*message) : std::nullopt;
}

class BeastWebSocketTest : public ::testing::Test {
  protected:
    void SetUp() override {
        devserver::Options options;
        options.onSocketEvent = [this](const devserver::SocketEvent& event) {
            if (event.kind != devserver::SocketEvent::Kind::closed) return;
            std::lock_guard lock(mutex_);
            closeCodes_.push_back(event.closeCode);
        };
        server_.start(options);
        token_ = registerDevice();
    }

    std::string registerDevice() {
        auto request = post(*Url::parse(server_.url() + "/v1/sdk/devices"), R"({"installId":"x"})");
        request.headers = {{"X-Virela-Key", "vk_demo_local"}, {"Content-Type", "application/json"}};
        Completion completion;
        client_.send(request, completion.callback());
        auto outcome = completion.wait();
        if (!outcome.response) throw std::runtime_error("registration failed");
        return nlohmann::json::parse(outcome.response->body).at("deviceToken").get<std::string>();
    }
    Url socketUrl(const std::string& scheme = "ws") const {
        return *Url::parse(scheme + "://127.0.0.1:" + std::to_string(server_.port()) +
                           "/sdk/socket");
    }
    std::string credential() const { return "virela.device." + token_; }
    std::shared_ptr<BeastWebSocket> open(std::vector<std::string> protocols,
                                         std::weak_ptr<SocketDelegate> delegate = {},
                                         WebSocketOptions options = {}, Url url = {}) {
        if (url.str().empty()) url = socketUrl();
        auto socket = BeastWebSocket::create(client_, url, std::move(protocols),
                                             std::move(delegate), options);
        socket->resume();
        return socket;
    }
    // A socket whose opening handshake has completed on both ends.
    std::shared_ptr<BeastWebSocket> openFully() {
        auto delegate = std::make_shared<OpenRecorder>();
        auto socket = open({credential()}, delegate);
        delegate->protocols.at(0);
        return socket;
    }
    std::vector<int> closeCodes() {
        std::lock_guard lock(mutex_);
        return closeCodes_;
    }

    std::mutex mutex_;
    std::vector<int> closeCodes_;  // from the server's side
    devserver::Server server_;
    BeastHttpClient client_;
    std::string token_;
};

TEST_F(BeastWebSocketTest, OpensWithTheOfferedProtocolAndCarriesMessagesBothWaysInOrder) {
    TempDir dir;
    RuntimeOptions options;
    options.install = false;
    options.stateDirectory = dir.path();
    Runtime runtime(options);
    auto delegate = std::make_shared<OpenRecorder>();
    auto connection =
        runtime.platform()->makeSocket(socketUrl(), nullptr, {credential()}, delegate);
    ASSERT_TRUE(connection.socket);
    auto& socket = *connection.socket;
    EXPECT_EQ(socket.state(), SocketState::suspended);

    // Before the opening: the receive waits for it and the send is held until then.
    Results<SocketReceiveResult> received;
    Results<std::exception_ptr> sent;
    socket.receive(received.add());
    socket.send(SocketMessage::text("early"), sent.add());
    socket.resume();
    EXPECT_EQ(socket.state(), SocketState::running);
    EXPECT_EQ(delegate->protocols.at(0), credential());
    EXPECT_EQ(delegate->opened.load(), &socket);
    ASSERT_TRUE(server_.waitForConnection(token_, 5s));

    const auto bytes = std::string("\0\x01\xff", 3);
    ASSERT_TRUE(server_.pushText(token_, "one"));
    ASSERT_TRUE(server_.pushBinary(token_, bytes));
    ASSERT_TRUE(server_.pushText(token_, "three"));
    EXPECT_EQ(messageIn(received.at(0)), SocketMessage::text("one"));
    // The other two arrive while no receive is outstanding and must wait in order.
    std::this_thread::sleep_for(100ms);
    socket.receive(received.add());
    EXPECT_EQ(messageIn(received.at(1)), SocketMessage::binary(bytes));
    socket.receive(received.add());
    EXPECT_EQ(messageIn(received.at(2)), SocketMessage::text("three"));

    socket.send(SocketMessage::text("late"), sent.add());
    EXPECT_EQ(sent.at(0), nullptr);
    EXPECT_EQ(sent.at(1), nullptr);
    ASSERT_TRUE(server_.waitForFrames(token_, 2, 5s));
    EXPECT_EQ(server_.framesFrom(token_), (std::vector<std::string>{"early", "late"}));

    // The credential is the one subprotocol offered, and no header of ours rides along.
    auto upgrades = server_.requests("/sdk/socket");
    ASSERT_EQ(upgrades.size(), 1u);
    EXPECT_EQ(upgrades[0].header("Sec-WebSocket-Protocol"), credential());
    const std::vector<std::string> standard = {"host",
                                               "upgrade",
                                               "connection",
                                               "sec-websocket-key",
                                               "sec-websocket-version",
                                               "sec-websocket-protocol",
                                               "user-agent"};
    for (const auto& header : upgrades[0].headers) {
        std::string name = header.name;
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        EXPECT_NE(std::find(standard.begin(), standard.end(), name), standard.end()) << name;
    }
}

TEST_F(BeastWebSocketTest, FailedOpeningsReportTheirKindToEveryCallAndNeverOpen) {
    using Kind = NetworkError::Kind;
    auto delegate = std::make_shared<OpenRecorder>();
    int closedPort = 0;
    {
        LoopbackServer gone([](int) {});
        closedPort = gone.port();
    }
    LoopbackServer silent([&](int fd) { silent.hold(fd); });
    WebSocketOptions quick;
    quick.openTimeoutSeconds = 0.3;
    auto closed = *Url::parse("ws://127.0.0.1:" + std::to_string(closedPort) + "/sdk/socket");
    auto http = *Url::parse(server_.url() + "/sdk/socket");

    struct Case {
        std::string name;
        std::shared_ptr<BeastWebSocket> socket;
        Kind kind;
        std::optional<long> platformCode;
    };
    std::vector<Case> cases;
    cases.push_back({"wrong token", open({"virela.device.nope"}, delegate), Kind::other, 401});
    cases.push_back({"refused", open({credential()}, delegate, {}, closed), Kind::refused, {}});
    cases.push_back({"timed out",
                     open({credential()}, delegate, quick, silent.url("/", "ws")),
                     Kind::timedOut,
                     {}});
    cases.push_back({"TLS to a plain server",
                     open({credential()}, delegate, {}, socketUrl("wss")),
                     Kind::secureConnection,
                     {}});
    cases.push_back({"header injection", open({"a\r\nX-Evil: 1"}, delegate), Kind::other, 0});
    cases.push_back({"not a socket URL", open({credential()}, delegate, {}, http), Kind::other, 0});

    auto check = [&](const Case& c) {
        SCOPED_TRACE(c.name);
        Results<SocketReceiveResult> received;
        Results<std::exception_ptr> sent;
        c.socket->receive(received.add());
        c.socket->send(SocketMessage::text("x"), sent.add());
        auto error = networkErrorIn(received.at(0));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), c.kind) << error->what();
        if (c.platformCode) {
            EXPECT_EQ(error->platformCode(), *c.platformCode);
            if (*c.platformCode != 0) {
                EXPECT_NE(std::string(error->what()).find(std::to_string(*c.platformCode)),
                          std::string::npos)
                    << error->what();
            }
        }
        EXPECT_TRUE(networkErrorIn(sent.at(0)));
        EXPECT_TRUE(waitFor([&] { return c.socket->state() == SocketState::completed; }));
        c.socket->receive(received.add());
        EXPECT_EQ(networkErrorIn(received.at(1))->kind(), c.kind);
    };
    for (const auto& c : cases) check(c);
    server_.refuseConnections(10s);
    check({"turned away", open({credential()}, delegate), Kind::other, 503});
    server_.refuseConnections(0ms);
    EXPECT_EQ(delegate->protocols.size(), 0u);
    // Neither the injected header nor the http URL went out.
    EXPECT_EQ(server_.requests("/sdk/socket").size(), 2u);
}

TEST_F(BeastWebSocketTest, TheConnectionEndingFailsTheReceiveOnlyAfterWhatArrivedBefore) {
    using Kind = NetworkError::Kind;
    // Dropped without a close frame.
    auto dropped = open({credential()});
    ASSERT_TRUE(server_.waitForConnection(token_, 5s));
    Results<SocketReceiveResult> lost;
    dropped->receive(lost.add());
    server_.dropConnection(token_);
    ASSERT_TRUE(networkErrorIn(lost.at(0)));
    EXPECT_EQ(networkErrorIn(lost.at(0))->kind(), Kind::other);
    EXPECT_TRUE(waitFor([&] { return dropped->state() == SocketState::completed; }));

    // Closed with a code, after one more message.
    auto closed = open({credential()});
    ASSERT_TRUE(server_.waitForConnection(token_, 5s, 2));
    ASSERT_TRUE(server_.pushText(token_, "last"));
    server_.closeConnection(token_, 4001);
    ASSERT_TRUE(waitFor([&] { return closed->state() == SocketState::completed; }));
    Results<SocketReceiveResult> received;
    for (int i = 0; i < 3; ++i) closed->receive(received.add());
    EXPECT_EQ(messageIn(received.at(0)), SocketMessage::text("last"));
    for (std::size_t i : {1u, 2u}) {
        auto error = networkErrorIn(received.at(i));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), Kind::other);
        EXPECT_EQ(error->platformCode(), 4001);
    }
    Results<std::exception_ptr> sent;
    closed->send(SocketMessage::text("x"), sent.add());
    EXPECT_TRUE(networkErrorIn(sent.at(0)));

    // A reader that stops taking messages does not make the queue grow without bound.
    WebSocketOptions small;
    small.maxQueuedMessages = 2;
    auto flooded = open({credential()}, {}, small);
    ASSERT_TRUE(server_.waitForConnection(token_, 5s, 3));
    for (const char* text : {"a", "b", "c", "d"}) ASSERT_TRUE(server_.pushText(token_, text));
    ASSERT_TRUE(waitFor([&] { return flooded->state() == SocketState::completed; }));
    Results<SocketReceiveResult> backlog;
    for (int i = 0; i < 3; ++i) flooded->receive(backlog.add());
    EXPECT_EQ(messageIn(backlog.at(0)), SocketMessage::text("a"));
    EXPECT_EQ(messageIn(backlog.at(1)), SocketMessage::text("b"));
    EXPECT_TRUE(networkErrorIn(backlog.at(2)));
    EXPECT_TRUE(waitFor([&] { return !server_.connected(token_); }));
}

TEST_F(BeastWebSocketTest, CancelClosesWithTheCodeAndFailsPendingAndLaterCallsAsCancelled) {
    using Kind = NetworkError::Kind;
    auto socket = openFully();
    Results<SocketReceiveResult> received;
    socket->receive(received.add());
    socket->cancel(1000, "bye");
    EXPECT_NE(socket->state(), SocketState::running);
    EXPECT_EQ(networkErrorIn(received.at(0))->kind(), Kind::cancelled);
    ASSERT_TRUE(waitFor([&] { return closeCodes().size() == 1; }));
    EXPECT_EQ(closeCodes()[0], 1000);
    EXPECT_TRUE(waitFor([&] { return socket->state() == SocketState::completed; }));
    Results<std::exception_ptr> sent;
    socket->send(SocketMessage::text("x"), sent.add());
    socket->receive(received.add());
    EXPECT_EQ(networkErrorIn(sent.at(0))->kind(), Kind::cancelled);
    EXPECT_EQ(networkErrorIn(received.at(1))->kind(), Kind::cancelled);
    socket->cancel(1000, std::nullopt);  // a second cancel is harmless

    // A code no close frame may carry goes out as a normal closure, with an overlong reason cut.
    auto odd = openFully();
    odd->cancel(1006, std::string(500, 'x'));
    ASSERT_TRUE(waitFor([&] { return closeCodes().size() == 2; }));
    EXPECT_EQ(closeCodes()[1], 1000);

    // Letting go of an open socket closes it as going away.
    auto dropped = openFully();
    dropped.reset();
    ASSERT_TRUE(waitFor([&] { return closeCodes().size() == 3; }));
    EXPECT_EQ(closeCodes()[2], 1001);
}

TEST_F(BeastWebSocketTest, ShutdownCompletesEverythingPendingOnceAsCancelled) {
    using Kind = NetworkError::Kind;
    auto live = open({credential()});
    ASSERT_TRUE(server_.waitForConnection(token_, 5s));
    auto suspended = BeastWebSocket::create(client_, socketUrl(), {credential()}, {});
    Results<SocketReceiveResult> received;
    Results<std::exception_ptr> sent;
    live->receive(received.add());
    suspended->receive(received.add());
    suspended->send(SocketMessage::text("x"), sent.add());
    client_.shutdown();

    auto after = BeastWebSocket::create(client_, socketUrl(), {credential()}, {});
    after->resume();
    after->receive(received.add());
    live->receive(received.add());
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(networkErrorIn(received.at(i))->kind(), Kind::cancelled) << i;
    }
    EXPECT_EQ(networkErrorIn(sent.at(0))->kind(), Kind::cancelled);
    for (const auto& socket : {live, suspended, after}) {
        EXPECT_EQ(socket->state(), SocketState::completed);
    }
    EXPECT_TRUE(waitFor([&] { return !server_.connected(token_); }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(received.size(), 4u);
    EXPECT_EQ(sent.size(), 1u);
}
}  // namespace
}  // namespace virela::headless
