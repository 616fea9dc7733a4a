// The collector facing hostile senders, over loopback and through the real command: hostile
// hits and what they do to every output, the HTTP limits (with this process's resident memory
// watched), slow senders that must not shut others out, and who may read what.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/collector_fixture.hpp"
#include "support/temp_home.hpp"

namespace {

namespace uc = usemeter_collector;
using namespace std::chrono_literals;

// A loopback connection from source (any 127.x address), with a receive time-out.
int connect_to(int port, const char* source = "127.0.0.1")
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, source, &address.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? fd : (::close(fd), -1);
}

std::string read_until_closed(int fd)
{
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;)
        text.append(buffer, n);
    ::close(fd);
    return text;
}

// Sends head, then `repeat` times `part` (while the collector still reads), then tail; returns
// everything answered until the collector closes.
std::string exchange(int port, const std::string& head, const std::string& part = "", std::size_t repeat = 0,
                     const std::string& tail = "")
{
    const int fd = connect_to(port);
    bool reading = ::send(fd, head.data(), head.size(), MSG_NOSIGNAL) >= 0;
    for (std::size_t i = 0; reading && i < repeat; ++i)
        reading = ::send(fd, part.data(), part.size(), MSG_NOSIGNAL) >= 0;
    if (reading)
        ::send(fd, tail.data(), tail.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    return read_until_closed(fd);
}

std::string post(const std::string& path, const std::string& body, const std::string& headers = "")
{
    return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "Content-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string get(const std::string& path, const std::string& headers = "Host: 127.0.0.1\r\n")
{
    return "GET " + path + " HTTP/1.1\r\n" + headers + "Connection: close\r\n\r\n";
}

int status_of(const std::string& answer)
{
    return answer.compare(0, 9, "HTTP/1.1 ") == 0 ? std::atoi(answer.c_str() + 9) : 0;
}

long peak_resident_kb()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "VmHWM:") == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

class hostile_test : public ::testing::Test {
protected:
    void start(const std::string& token = "")
    {
        collector = usemeter_test::start_report_collector(
            store, token, [&](uc::collector_options_t& options) { options.access_log.path = home / "access.log"; });
        ASSERT_TRUE(collector);
    }

    usemeter_test::temp_home_t home;
    std::string store = "sqlite:" + home / "hits.db";
    std::unique_ptr<uc::collector_t> collector;
};

const std::string hit = "v=1&tid=UA-1&cid=c&t=event&an=p&av=1";

TEST_F(hostile_test, no_hit_can_break_a_report_the_page_or_an_export)
{
    start();
    struct case_t { std::string body; uc::rejection_t reason; };
    const case_t cases[] = {
        {hit + "&ec=%FF%FEx", uc::rejection_t::bad_encoding},
        {"v=3&x=\x1b[2J\x07", uc::rejection_t::bad_version},
        {hit + "&ec=%3C!--%3Cscript%3E&el=%3D1%2B2", uc::rejection_t::none},
        {hit + "&ec=%2Bcmd&el=%40SUM(1)", uc::rejection_t::none},
        {hit + "&ec=caf%C3%A9&el=-2+x", uc::rejection_t::none},  // a form's + is a space
        {hit + "&ec=cr&el=a%0Db", uc::rejection_t::none},
        {"v=1&tid=UA-1&t=event&ec=a", uc::rejection_t::missing_cid},
    };
    for (const case_t& c : cases) {
        const std::uint64_t rejected = collector->metrics().rejected(c.reason);
        EXPECT_EQ(status_of(exchange(collector->port(), post("/collect", c.body, "Connection: close\r\n"))), 200);
        if (c.reason != uc::rejection_t::none) {
            EXPECT_EQ(collector->metrics().rejected(c.reason), rejected + 1) << c.body;
        }
    }
    EXPECT_EQ(collector->metrics().stored(), 4u);
    const std::string metrics = exchange(collector->port(), get("/metrics"));
    EXPECT_NE(metrics.find("\nusemeter_hits_stored_total 4\n"), std::string::npos) << metrics;
    EXPECT_NE(metrics.find("\nusemeter_hits_rejected_total{reason=\"missing_cid\"} 1\n"), std::string::npos);
    std::string error;  // as an older collector may have stored
    ASSERT_TRUE(uc::open_store(store, uc::durability_t::normal, error)->append({{1, "UA-1", "c", "p", "1", "", "", "", "\xff", ""}}));
    for (const char* kind : {"active", "features", "versions", "systems"})
        EXPECT_EQ(status_of(exchange(collector->port(), get(std::string("/api/stats/") + kind))), 200) << kind;
    EXPECT_EQ(status_of(exchange(collector->port(), get("/api/stats/active?until=%FF"))), 400);
    const std::string rejections = exchange(collector->port(), get("/rejections"));
    EXPECT_NE(rejections.find("v=3&x=\\x1b[2J\\x07"), std::string::npos) << rejections;
    // Spreadsheets run none of the stored labels; the page's inlined data closes nothing.
    std::string csv;
    for (const std::string command : {"collector export", "stats features --format csv", "stats features --format json"}) {
        const auto run = usemeter_test::run_tool(command + " --store " + store);
        EXPECT_EQ(run.status, 0) << command;
        csv += run.out;
    }
    for (const char* cell : {",'=1+2", ",'+cmd,'@SUM(1)", ",'-2 x", ",'+cmd,", ",\"a\rb\""})
        EXPECT_NE(csv.find(cell), std::string::npos) << cell << "\n" << csv;
    EXPECT_EQ(usemeter_test::run_tool("stats --html " + home / "page.html" + " --store " + store).status, 0);
    const std::string page = usemeter_test::read_file(home / "page.html");
    EXPECT_NE(page.find("\\u003c!--\\u003cscript\\u003e"), std::string::npos);
    EXPECT_EQ(page.find("<!--<script>"), std::string::npos);
    EXPECT_EQ(uc::script_safe("a</script></"), "a<\\/script><\\/");
}

TEST_F(hostile_test, http_limits_hold_whatever_the_framing)
{
    start();
    const long peak_before = peak_resident_kb();
    const std::string chunk = "1000\r\n" + std::string(4096, 'a') + "\r\n";
    const std::string chunked = "POST /collect HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string header_line = "X-Filler: " + std::string(4000, 'f') + "\r\n";
    const std::string small = hit + "&ec=chunked";
    char small_chunk[32];
    std::snprintf(small_chunk, sizeof small_chunk, "%zx\r\n", small.size());
    std::string batch;
    for (int i = 0; i < 20; ++i)
        batch += hit + "&ec=gui&el=" + std::string(450, 'e') + "\n";
    const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
    struct case_t { std::string name, head, part; std::size_t repeat; std::string tail; int status; int stored; };
    const case_t cases[] = {
        {"chunked within the limit", chunked, "", 0, small_chunk + small + "\r\n0\r\n\r\n", 200, 1},
        {"chunked 300 MB", chunked, chunk, 75000, "0\r\n\r\n", 413, 0},
        {"announced over 8 KB", post("/collect", hit + "&ec=a&x=" + std::string(8192, 'x')), "", 0, "", 413, 0},
        {"form batch of 10 KB", post("/batch", batch, form), "", 0, "", 200, 20},
        {"batch of 21 lines", post("/batch", batch + hit + "&ec=a", form), "", 0, "", 413, 0},
        {"batch over 16 KB", post("/batch", batch + hit + "&ec=a&x=" + std::string(6500, 'x')), "", 0, "", 413, 0},
        {"batch line over 8 KB", post("/batch", hit + "&ec=a&x=" + std::string(8192, 'x')), "", 0, "", 413, 0},
        {"batch with a bad line", post("/batch", hit + "&ec=a\r\n" + hit + "&ec=b\nv=3"), "", 0, "", 200, 2},
        {"no such path", post("/other", hit + "&ec=a"), "", 0, "", 404, 0},
        {"no GET of hits", get("/collect"), "", 0, "", 405, 0},
        {"gzip", post("/collect", hit, "Content-Encoding: gzip\r\n"), "", 0, "", 415, 0},
        {"101 header lines", "GET /healthz HTTP/1.1\r\n", "A: b\r\n", 101, "\r\n", 431, 0},
        {"20 KB of headers", "GET /healthz HTTP/1.1\r\n", header_line, 5, "\r\n", 431, 0},
        {"150 MB of headers", "GET /healthz HTTP/1.1\r\n", header_line, 37500, "\r\n", 431, 0},
        {"multi-range", get("/metrics", "Host: h\r\nRange: bytes=0-0,0-,0-\r\n"), "", 0, "", 200, 0},
        {"three pipelined", post("/collect", hit + "&ec=a"), post("/collect", hit + "&ec=b"), 2, "", 200, 3},
    };
    for (const case_t& c : cases) {
        const std::uint64_t stored = collector->metrics().stored();
        const std::string answer = exchange(collector->port(), c.head, c.part, c.repeat, c.tail);
        EXPECT_EQ(status_of(answer), c.status) << c.name << ": " << answer.substr(0, 200);
        EXPECT_EQ(answer.find("multipart"), std::string::npos) << c.name;
        std::size_t answers = 0;
        for (std::size_t at = 0; (at = answer.find("HTTP/1.1 ", at)) != std::string::npos; ++at)
            ++answers;
        EXPECT_EQ(answers, c.stored == 3 ? 3u : 1u) << c.name;
        EXPECT_EQ(collector->metrics().stored(), stored + c.stored) << c.name;
    }
    EXPECT_LT(peak_resident_kb() - peak_before, 64 * 1024) << "kB more at the peak";
}

// A few hundred connections trickle headers from other addresses, as many as one address may
// hold: hits and /healthz are still answered at once, one more connection from a full address
// is closed at once, and the slow ones are dropped ten seconds after they began.
TEST_F(hostile_test, slow_senders_shut_nobody_out)
{
    start();
    std::vector<int> slow;
    for (int i = 0; i < 320; ++i)
        slow.push_back(connect_to(collector->port(), ("127.0.0." + std::to_string(2 + i / 64)).c_str()));
    EXPECT_EQ(read_until_closed(connect_to(collector->port(), "127.0.0.2")), "");
    const auto began = std::chrono::steady_clock::now();
    std::vector<bool> dropped(slow.size(), false);
    for (int round = 0; std::chrono::steady_clock::now() - began < 14s; ++round) {
        for (std::size_t i = 0; i < slow.size(); ++i)
            dropped[i] = dropped[i] || ::send(slow[i], round ? "X: y\r\n" : "GET / HTTP/1.1\r\n", round ? 6 : 16,
                                              MSG_NOSIGNAL) < 0;
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(status_of(exchange(collector->port(), post("/collect", hit + "&ec=a", "Connection: close\r\n"))), 200);
        EXPECT_EQ(status_of(exchange(collector->port(), get("/healthz"))), 200);
        EXPECT_LT(std::chrono::steady_clock::now() - asked, 2s);
        std::this_thread::sleep_for(1s);
    }
    std::size_t closed = 0;
    for (std::size_t i = 0; i < slow.size(); ++i) {
        char byte;
        closed += dropped[i] || ::recv(slow[i], &byte, 1, MSG_DONTWAIT) == 0;
        ::close(slow[i]);
    }
    EXPECT_EQ(closed, slow.size());
}

TEST_F(hostile_test, reports_and_rejections_need_loopback_by_name_or_the_token)
{
    struct case_t { const char* token; std::string headers; int status; };
    const case_t cases[] = {
        {"", "Host: 127.0.0.1:8080\r\n", 200},      {"", "Host: [::1]:1\r\n", 200},
        {"", "Host: LOCALHOST\r\n", 200},           {"", "Host: rebind.example\r\n", 403},
        {"", "", 403},                              {"t0k", "Host: collector.example\r\n", 401},
        {"t0k", "Host: x\r\nAuthorization: Bearer t0k\r\n", 200},
        {"t0k", "Host: x\r\nAuthorization: Bearer t0K\r\n", 401},
    };
    for (const case_t& c : cases) {
        start(c.token);
        for (const char* path : {"/report/report.css", "/rejections", "/api/stats/systems"}) {
            const std::string answer = exchange(collector->port(), get(path, c.headers));
            EXPECT_EQ(status_of(answer), c.status) << path << " " << c.headers;
            if (c.status == 200 && std::string(path) == "/report/report.css") {
                EXPECT_NE(answer.find("Content-Security-Policy: default-src 'none'; script-src 'self'"), std::string::npos);
            }
        }
        collector.reset();
    }
    // One line per request, without the client's address; refusals with their reason.
    const std::string log = usemeter_test::read_file(home / "access.log");
    EXPECT_NE(log.find(" 403 0 /rejections no_access\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Z 200 0 /report/report.css\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("127.0.0.1"), std::string::npos);
    // Addresses only when asked for.
    auto asked = usemeter_test::start_report_collector(
        store, "", [&](uc::collector_options_t& options) { options.access_log = {home / "addresses.log", true}; });
    exchange(asked->port(), get("/healthz"));
    asked->stop();
    EXPECT_NE(usemeter_test::read_file(home / "addresses.log").find("Z 127.0.0.1 200 0 /healthz\n"), std::string::npos);
    for (const char* peer : {"127.0.0.1", "127.9.8.7", "::1", "::ffff:127.0.0.2"})
        EXPECT_TRUE(uc::is_loopback_address(peer)) << peer;
    for (const char* peer : {"128.0.0.1", "::2", "::ffff:10.0.0.1", "10.127.0.1", ""})
        EXPECT_FALSE(uc::is_loopback_address(peer)) << peer;
}

}  // namespace
