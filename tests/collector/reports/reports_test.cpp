// The reports as their readers see them: hand-made hits with known answers through the
// usemeter command in every format and the collector's JSON endpoints; generated hits on the
// page in a real headless browser. Who may read is hostile_test's.
#include <cmath>
#include <cstdio>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "collector/reports/generator.hpp"
#include "collector/reports/reports.hpp"
#include "support/collector_fixture.hpp"
#include "support/temp_home.hpp"

namespace {

namespace uc = usemeter_collector;
using json = nlohmann::json;
using namespace usemeter_test;

class reports_test : public ::testing::Test {
protected:
    std::string store_uri() const { return "sqlite:" + home_ / "hits.db"; }

    void store(const std::vector<uc::hit_t>& hits)
    {
        std::string error;
        auto store = uc::open_store(store_uri(), uc::durability_t::normal, error);
        ASSERT_TRUE(store) << error;
        ASSERT_TRUE(store->append(hits));
    }

    // The collector's answer to a command's "KIND --name value ..." arguments, from its JSON
    // endpoint; the collector starts on first use.
    std::string endpoint_answer(const std::string& arguments)
    {
        if (!serving_)
            serving_ = start_report_collector(store_uri());
        std::istringstream words(arguments);
        std::string path;
        words >> path;
        path = "/api/stats/" + path + "?";
        for (std::string name, value; words >> name >> value;)
            path += name.substr(2) + "=" + value + "&";
        const auto answer = httplib::Client("127.0.0.1", serving_->port()).Get(path);
        return answer ? answer->body : "no answer";
    }

    temp_home_t home_;
    std::unique_ptr<uc::collector_t> serving_;
};

uc::hit_t hit(const std::string& day, const std::string& cid, const std::string& av,
              const std::string& cd2, const std::string& cd3, const std::string& ec,
              const std::string& el, const std::string& an = "trovix")
{
    return {uc::day_number(day) * 86400 + 3600, "UA-1-1", cid, an, av, "posix", cd2, cd3, ec, el};
}

// A: seen first on 03-01 (week of 02-23), back only in the second week after, upgrades from
// 1.9 to 1.10, where the users' categories differ. B: weekly but not daily on 03-13, on 03-12
// with two versions and systems (one user that day, in both versions and both systems).
// G: monthly but not weekly on 03-10. 03-12: one user in three with cd3=y. F, H: another product,
// where more users view than run.
const std::vector<uc::hit_t> known_hits = {
    hit("2026-03-01", "A", "1.9", "Debian 12", "n", "run", "collect"),
    hit("2026-03-02", "G", "1.9", "Debian 12", "n", "run", "collect"),
    hit("2026-03-10", "A", "1.9", "Debian 12", "y", "run", "collect"),
    hit("2026-03-10", "A", "1.9", "Debian 12", "y", "run", "collect"),
    hit("2026-03-10", "B", "1.9", "Debian 12", "n", "run", "analyze"),
    hit("2026-03-10", "F", "9", "Debian 12", "y", "run", "collect", "other"),
    hit("2026-03-11", "F", "9", "Debian 12", "n", "view", "graph", "other"),
    hit("2026-03-11", "H", "9", "Debian 12", "n", "view", "graph", "other"),
    hit("2026-03-12", "B", "1.9", "Debian 12", "n", "run", "analyze"),
    hit("2026-03-12", "B", "1.10", "Fedora 40", "n", "run", "analyze"),
    hit("2026-03-12", "D", "1.10", "Fedora 40", "y", "view", "graph"),
    hit("2026-03-12", "E", "1.9", "Debian 12", "n", "run", "collect"),
    hit("2026-03-14", "C", "1.10", "Fedora 40", "n", "import", "csv"),
    hit("2026-03-14", "C", "1.10", "Fedora 40", "y", "import", "csv"),
    hit("2026-03-16", "A", "1.10", "Debian 12", "y", "script", ""),
};

// tests/data/known_reports.txt holds, after each "$ arguments" line, the command's whole
// answer: the numbers as CSV, and whole answers in the other formats for null and empty
// labels, the weekly trend (one hit each side of a Monday) and the newest version. Its JSON
// answers are also the endpoints' answers.
TEST_F(reports_test, known_hits_give_known_numbers_in_every_format)
{
    store(known_hits);
    const std::string path = USEMETER_TEST_SOURCE_DIR "/data/known_reports.txt";
    std::istringstream cases(read_file(path));
    std::vector<std::pair<std::string, std::string>> answers;
    for (std::string line; std::getline(cases, line);) {
        if (line.rfind("$ ", 0) == 0)
            answers.emplace_back(line.substr(2), "");
        else
            answers.back().second += line + "\n";
    }
    ASSERT_EQ(answers.size(), 20u);
    for (const auto& [arguments, answer] : answers) {
        const std::string command = "stats " + arguments + " --store " + store_uri();
        EXPECT_EQ(run_tool(command).out, answer) << arguments;
        if (arguments.find("--format json") != std::string::npos) {
            EXPECT_EQ(endpoint_answer(arguments), answer) << arguments;
        }
    }
    EXPECT_EQ(run_tool("stats active --store sqlite:" + home_ / "none.db").status, 1);
    httplib::Client client("127.0.0.1", serving_->port());
    EXPECT_EQ(client.Get("/api/stats/active?since=2026-02-30")->status, 400);
    EXPECT_EQ(client.Get("/api/stats/everything")->status, 404);
}

// Generated hits in a running collector, read by the command, the endpoints and a browser.
class served_reports_test : public reports_test {
protected:
    void SetUp() override
    {
        const uc::generator_options_t generator{"trovix", 120, 50, "2026-03-16"};
        std::string error;
        auto store = uc::open_store(store_uri(), uc::durability_t::normal, error);
        std::int64_t hits = 0;
        ASSERT_TRUE(uc::generate_hits(generator, *store, hits));
        collector_ = start_report_collector(store_uri());
        ASSERT_TRUE(collector_);
    }

    std::unique_ptr<uc::collector_t> collector_;
};

const char* const range = "since=2026-02-15&until=2026-03-16";

// The DOM of url in Debian's headless chromium, with a profile of its own under dir, stopped
// with its process group after 90 s. Console gets the page's console messages and uncaught
// exceptions, which headless chromium logs as INFO:CONSOLE whatever their level.
std::string page_dom(const std::string& dir, const std::string& url, std::string& console)
{
    static int profiles = 0;
    const std::string log = dir + "/chromium.log";
    const auto page = run_command("timeout -s KILL 90 /usr/bin/chromium --headless --no-sandbox --disable-gpu"
                           " --disable-background-networking --disable-component-update --disable-sync"
                           " --no-first-run --no-proxy-server --enable-logging=stderr --v=0"
                           " --virtual-time-budget=10000 --dump-dom --user-data-dir=" + dir + "/chromium-" +
                           std::to_string(++profiles) + " '" + url + "' 2>" + log);
    console = run_command("grep :CONSOLE " + log).out;
    return page.out;
}

std::string attribute_of(const std::string& dom, const std::string& id, const std::string& name)
{
    std::smatch match;
    const std::regex pattern("id=\"" + id + "\"[^>]*" + name + "=\"([^\"]*)\"|" + name +
                             "=\"([^\"]*)\"[^>]*id=\"" + id + "\"");
    return std::regex_search(dom, match, pattern) ? match.str(1) + match.str(2) : "";
}

// The text of the element that begins with id="ID" up to its closing tag.
std::string element(const std::string& dom, const std::string& id, const std::string& tag)
{
    const std::size_t from = dom.find("id=\"" + id + "\"");
    return from == std::string::npos ? "" : dom.substr(from, dom.find("</" + tag + ">", from) - from);
}

std::vector<std::string> all_matches(const std::string& text, const std::string& pattern)
{
    std::vector<std::string> found;
    const std::regex expression(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
        found.push_back((*at)[1]);
    return found;
}

// What the page's toFixed(1) shows: the exact IEEE product (fma: no x87 double rounding on
// i386), and a tie, which printf would round to even, goes up.
std::string percent(const json& share)
{
    const double x = std::fma(100.0, share.get<double>(), 0.0);
    // Only k.25 and k.75 are exact ties: four times them is odd.
    const double quarters = 4 * x;
    const bool tie = quarters == std::floor(quarters) && std::fmod(quarters, 2) == 1;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%", tie ? (std::floor(10 * x) + 1) / 10 : x);
    return text;
}

TEST_F(served_reports_test, page_draws_every_chart_shows_the_endpoint_figures_and_obeys_its_controls)
{
    if (!file_exists("/usr/bin/chromium"))
        GTEST_SKIP() << "chromium is not installed (scripts/install-deps installs it)";
    const std::string file = home_ / "report.html";
    ASSERT_EQ(run_tool(std::string("stats --html ") + file + " --since 2026-02-15 --until 2026-03-16 --store " +
                       store_uri()).status, 0);
    auto stats = [&](const std::string& kind, const std::string& query) {
        return json::parse(httplib::Client("127.0.0.1", collector_->port()).Get("/api/stats/" + kind + "?" + query)->body);
    };
    const json days = stats("active", range).at("days");
    const json before = stats("active", "since=2026-01-16&until=2026-02-14").at("days");
    const json features = stats("features", range), cohorts = stats("retention", range).at("cohorts");
    const json adoption = stats("adoption", range).at("adoption");
    std::vector<std::string> returning, shares;
    for (const json& cohort : cohorts)
        for (const json& count : cohort.at("returning"))
            returning.push_back(count.dump());
    for (const json& row : adoption)
        shares.push_back(percent(row.at("share")));
    for (const std::string& url : {collector_->url("/report?") + range, "file://" + file}) {
        SCOPED_TRACE(url);
        std::string console;
        const std::string dom = page_dom(home_.path(), url, console);
        EXPECT_EQ(console, "");
        EXPECT_NE(dom.find("data-state=\"ready\""), std::string::npos) << dom.substr(0, 2000);
        EXPECT_EQ(dom.find("data-problems"), std::string::npos);
        for (const char* chart : {"chart-active", "chart-stickiness", "chart-new", "chart-features", "chart-trend",
                                  "chart-versions", "chart-systems"}) {
            EXPECT_EQ(attribute_of(dom, chart, "data-painted"), "yes") << chart;
            EXPECT_NE(attribute_of(dom, chart, "data-points"), "0") << chart;
        }
        std::int64_t fresh = 0;
        for (const json& day : days)
            fresh += day.at("new").get<std::int64_t>();
        const json& last = days.back();
        for (const auto& [id, figure] : {std::pair<std::string, std::string>{"dau", last.at("dau").dump()},
                                         {"wau", last.at("wau").dump()}, {"mau", last.at("mau").dump()},
                                         {"new", std::to_string(fresh)}, {"stickiness", percent(last.at("stickiness"))}})
            EXPECT_NE(dom.find("id=\"figure-" + id + "\">" + figure + "<"), std::string::npos) << id;
        const std::int64_t dau_change = last.at("dau").get<std::int64_t>() - before.back().at("dau").get<std::int64_t>();
        EXPECT_NE(element(dom, "delta-dau", "span").find((dau_change >= 0 ? "+" : "") + std::to_string(dau_change)),
                  std::string::npos);
        EXPECT_EQ(all_matches(element(dom, "table-retention", "table"), "<td class=\"share[^>]*>([0-9]+)<"), returning);
        std::vector<std::string> shown = all_matches(element(dom, "table-adoption", "table"), ">([0-9.]+%)<");
        std::sort(shown.begin(), shown.end());
        std::sort(shares.begin(), shares.end());
        EXPECT_EQ(shown, shares);
        EXPECT_EQ(all_matches(element(dom, "table-features", "table"), "(<tr)").size(), features.at("features").size() + 1);
    }
    // The controls' query (a version, the last 7 days) gives the figures of that scope's JSON.
    const json scoped = stats("active", "version=2026.1&since=2026-03-10&until=2026-03-16").at("days").back();
    std::string console;
    const std::string dom = page_dom(home_.path(), collector_->url("/report?version=2026.1&days=7&until=2026-03-16"), console);
    EXPECT_EQ(console, "");
    EXPECT_NE(dom.find(">2026-03-10 to 2026-03-16 (UTC), version 2026.1<"), std::string::npos);
    EXPECT_NE(dom.find("id=\"figure-wau\">" + scoped.at("wau").dump() + "<"), std::string::npos);
    EXPECT_NE(dom.find("<option value=\"2026.1\">"), std::string::npos);
}

}  // namespace
