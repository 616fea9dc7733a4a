// The reports as their readers see them: hand-made hits with known answers through the
// usemeter command in every format; generated hits through the command and the collector's
// JSON endpoints, which must agree; the page in a real headless browser; who may read.
#include <cstdio>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "collector/collector.hpp"
#include "collector/generator.hpp"
#include "collector/report_page.hpp"
#include "collector/reports.hpp"
#include "support/browser.hpp"
#include "support/temp_home.hpp"

namespace {

namespace uc = usemeter_collector;
using json = nlohmann::json;
using usemeter_test::temp_home_t;

struct tool_run_t {
    int status;
    std::string out;
};

tool_run_t run_tool(const std::string& arguments)
{
    FILE* pipe = ::popen((std::string(USEMETER_TOOL) + " " + arguments + " 2>/dev/null").c_str(), "r");
    std::string out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

std::vector<std::string> words(const std::string& text)
{
    std::istringstream in(text);
    std::vector<std::string> found;
    for (std::string word; in >> word;)
        found.push_back(word);
    return found;
}

// A JSON report rewritten as the expected CSV: null an empty field, "" a quoted one.
std::string json_as_csv(const std::string& text, const std::string& key, const std::string& header)
{
    const json doc = json::parse(text);
    EXPECT_EQ(doc.size(), key == "versions" || key == "features" ? 2u : 1u);
    std::string csv = header + "\n";
    for (const json& row : doc.at(key)) {
        std::string line;
        for (const std::string& column : words(std::regex_replace(header, std::regex(","), " "))) {
            const json& v = row.at(column);
            line += "," + (v.is_null() ? "" : !v.is_string() ? v.dump()
                          : v.get<std::string>().empty() ? "\"\"" : v.get<std::string>());
        }
        csv += line.substr(1) + "\n";
    }
    return csv;
}

// The words of an aligned table are the CSV's, with "(all)" for a null label.
std::vector<std::string> csv_as_table_words(const std::string& csv)
{
    std::string text = std::regex_replace(csv, std::regex("(^|\n)([^,\n]*),,"), "$1$2,(all),");
    text = std::regex_replace(text, std::regex("\"\""), "");
    return words(std::regex_replace(text, std::regex(","), " "));
}

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

    temp_home_t home_;
};

uc::hit_t hit(const std::string& day, const std::string& cid, const std::string& av,
              const std::string& cd2, const std::string& cd3, const std::string& ec,
              const std::string& el, const std::string& an = "trovix")
{
    return {uc::day_number(day) * 86400 + 3600, "UA-1-1", cid, an, av, "posix", cd2, cd3, ec, el};
}

// A: seen first on 03-01, upgrades from 1.9 to 1.10. B: weekly but not daily on 03-13.
// G: monthly but not weekly on 03-10. 03-12: one user in three with cd3=y. F: another product.
const std::vector<uc::hit_t> known_hits = {
    hit("2026-03-01", "A", "1.9", "Debian 12", "n", "run", "collect"),
    hit("2026-03-02", "G", "1.9", "Debian 12", "n", "run", "collect"),
    hit("2026-03-10", "A", "1.9", "Debian 12", "y", "run", "collect"),
    hit("2026-03-10", "A", "1.9", "Debian 12", "y", "run", "collect"),
    hit("2026-03-10", "B", "1.9", "Debian 12", "n", "run", "analyze"),
    hit("2026-03-10", "F", "9", "Debian 12", "y", "run", "collect", "other"),
    hit("2026-03-12", "B", "1.9", "Debian 12", "n", "run", "analyze"),
    hit("2026-03-12", "D", "1.10", "Fedora 40", "y", "view", "graph"),
    hit("2026-03-12", "E", "1.9", "Debian 12", "n", "run", "collect"),
    hit("2026-03-14", "C", "1.10", "Fedora 40", "n", "import", "csv"),
    hit("2026-03-14", "C", "1.10", "Fedora 40", "y", "import", "csv"),
    hit("2026-03-16", "A", "1.10", "Debian 12", "y", "script", ""),
};

struct known_case_t {
    const char* arguments;
    const char* key;
    const char* csv;
    const char* newest = "";  // versions: the table's closing line, words of the JSON's "newest"
};

const known_case_t known_cases[] = {
    {"active --product trovix", "days",
     "day,dau,wau,mau,new,active_share\n2026-03-10,2,2,3,1,0.5\n2026-03-11,0,2,3,0,0.0\n"
     "2026-03-12,3,4,5,2,0.3333\n2026-03-13,0,4,5,0,0.0\n2026-03-14,1,5,6,1,1.0\n"
     "2026-03-15,0,5,6,0,0.0\n2026-03-16,1,5,6,0,1.0\n"},
    {"active --until 2026-03-10", "days", "day,dau,wau,mau,new,active_share\n2026-03-10,3,3,4,2,0.6667\n"},
    {"active --product trovix --version 1.10 --since 2026-03-16", "days",
     "day,dau,wau,mau,new,active_share\n2026-03-16,1,3,3,0,1.0\n"},
    {"features --product trovix", "features",
     "category,label,hits,users\nrun,,5,3\nrun,collect,3,2\nrun,analyze,2,1\nimport,,2,1\n"
     "import,csv,2,1\nscript,,1,1\nscript,\"\",1,1\nview,,1,1\nview,graph,1,1\n"},
    {"features --product trovix --top 2 --since 2026-03-12", "features",
     "category,label,hits,users\nimport,,2,1\nimport,csv,2,1\nrun,,2,2\nrun,analyze,1,1\nrun,collect,1,1\n"},
    {"versions --product trovix", "versions",
     "day,version,users\n2026-03-10,1.9,2\n2026-03-12,1.9,2\n2026-03-12,1.10,1\n"
     "2026-03-14,1.10,1\n2026-03-16,1.10,1\n", "newest version 1.10 on 2026-03-16: 1 of 1 users (1.0)"},
    {"versions --product trovix --until 2026-03-12", "versions",
     "day,version,users\n2026-03-10,1.9,2\n2026-03-12,1.9,2\n2026-03-12,1.10,1\n",
     "newest version 1.10 on 2026-03-12: 1 of 3 users (0.3333)"},
    {"systems", "systems", "system,users\nDebian 12,4\nFedora 40,2\n"},
};

TEST_F(reports_test, known_hits_give_known_numbers_in_every_format)
{
    store(known_hits);
    for (const known_case_t& known : known_cases) {
        SCOPED_TRACE(known.arguments);
        std::string arguments = std::string("stats ") + known.arguments + " --store " + store_uri();
        if (arguments.find("--since") == std::string::npos)
            arguments += " --since 2026-03-10";
        if (arguments.find("--until") == std::string::npos)
            arguments += " --until 2026-03-16";
        const std::string header = std::string(known.csv).substr(0, std::string(known.csv).find('\n'));
        EXPECT_EQ(run_tool(arguments + " --format csv").out, known.csv);
        EXPECT_EQ(json_as_csv(run_tool(arguments + " --format json").out, known.key, header), known.csv);
        std::vector<std::string> table = csv_as_table_words(known.csv), newest = words(known.newest);
        table.insert(table.end(), newest.begin(), newest.end());
        EXPECT_EQ(words(run_tool(arguments).out), table);
        if (*known.newest) {
            const json n = json::parse(run_tool(arguments + " --format json").out).at("newest");
            EXPECT_EQ(newest, words("newest version " + n.at("version").get<std::string>() + " on " +
                                    n.at("day").get<std::string>() + ": " + n.at("users").dump() + " of " +
                                    n.at("dau").dump() + " users (" + n.at("share").dump() + ")"));
        }
    }
}

TEST_F(reports_test, weekly_trend_counts_each_category_per_week_within_the_range)
{
    store(known_hits);
    const json doc = json::parse(run_tool("stats features --product trovix --since 2026-03-10 --until 2026-03-16"
                                          " --format json --store " + store_uri()).out);
    std::string trend;
    for (const json& t : doc.at("trend"))
        trend += t.at("week").get<std::string>() + " " + t.at("category").get<std::string>() + " " + t.at("hits").dump() + ",";
    EXPECT_EQ(trend, "2026-03-09 run 5,2026-03-16 run 0,2026-03-09 import 2,2026-03-16 import 0,"
                     "2026-03-09 script 0,2026-03-16 script 1,2026-03-09 view 1,2026-03-16 view 0,");
}

TEST_F(reports_test, bad_input_is_refused_with_its_exit_code)
{
    store(known_hits);
    const std::pair<const char*, int> cases[] = {
        {"stats active --since 2026-02-30", 2}, {"stats active --since 2026-03-10 --until 2026-03-01", 2},
        {"stats nothing", 2}, {"stats active --format xml", 2}, {"stats active --top -1", 2},
        {"stats active systems", 2}, {"stats", 2}};
    for (const auto& [arguments, status] : cases)
        EXPECT_EQ(run_tool(std::string(arguments) + " --store " + store_uri()).status, status) << arguments;
    EXPECT_EQ(run_tool("stats active --store sqlite:" + home_ / "none.db").status, 1);
}

TEST(report_access, loopback_is_open_other_addresses_need_the_token)
{
    struct access_case_t {
        const char* remote;
        const char* authorization;
        const char* token;
        int status;
    } cases[] = {{"127.0.0.1", "", "", 200},          {"::1", "", "t0k", 200},
                 {"::ffff:127.0.0.9", "", "", 200},   {"192.0.2.7", "", "t0k", 401},
                 {"192.0.2.7", "Bearer t0k", "t0k", 200}, {"192.0.2.7", "Bearer t0K", "t0k", 401},
                 {"192.0.2.7", "Bearer ", "", 401},   {"::ffff:192.0.2.7", "t0k", "t0k", 401}};
    for (const access_case_t& c : cases) {
        uc::report_routes_t routes("sqlite:/nonexistent", c.token);
        httplib::Request request;
        request.remote_addr = c.remote;
        request.path = "/report/report.css";
        request.set_header("Authorization", c.authorization);
        httplib::Response response;
        routes.handle(request, response);
        EXPECT_EQ(response.status, c.status) << c.remote << " " << c.authorization;
        EXPECT_NE(response.get_header_value("Content-Security-Policy").find("script-src 'self'"),
                  std::string::npos);
    }
}

// Generated hits in a running collector, read by the command, the endpoints and a browser.
class served_reports_test : public reports_test {
protected:
    void SetUp() override
    {
        uc::generator_options_t generator;
        generator.users = 120;
        generator.days = 50;
        generator.until = "2026-03-16";
        std::string error;
        auto store = uc::open_store(store_uri(), uc::durability_t::normal, error);
        std::int64_t hits = 0;
        ASSERT_TRUE(uc::generate_hits(generator, *store, hits));
        uc::collector_options_t options;
        options.listen = "127.0.0.1:0";
        options.store = store_uri();
        auto routes = std::make_shared<uc::report_routes_t>(store_uri(), "");
        options.mount = [routes](httplib::Server& server) { routes->mount(server); };
        collector_ = std::make_unique<uc::collector_t>(options);
        ASSERT_TRUE(collector_->start());
    }

    httplib::Result get(const std::string& path)
    {
        httplib::Client client("127.0.0.1", collector_->port());
        return client.Get(path);
    }

    std::unique_ptr<uc::collector_t> collector_;
};

const char* const range = "since=2026-02-15&until=2026-03-16";

TEST_F(served_reports_test, command_line_and_endpoints_agree)
{
    for (const char* query : {range, "product=trovix&version=2025.2&since=2026-03-01&until=2026-03-16"}) {
        std::string arguments = std::regex_replace(std::string("&") + query, std::regex("&([a-z]+)="), " --$1 ");
        for (const char* kind : {"active", "features", "versions", "systems"}) {
            auto answer = get(std::string("/api/stats/") + kind + "?" + query);
            ASSERT_TRUE(answer);
            EXPECT_EQ(answer->status, 200);
            const tool_run_t command =
                run_tool(std::string("stats ") + kind + arguments + " --format json --store " + store_uri());
            EXPECT_EQ(json::parse(command.out), json::parse(answer->body)) << kind << " " << query;
        }
    }
    EXPECT_EQ(get("/api/stats/active?since=2026-02-30")->status, 400);
    EXPECT_EQ(get("/api/stats/everything")->status, 404);
}

std::string attribute_of(const std::string& dom, const std::string& id, const std::string& name)
{
    std::smatch match;
    const std::regex pattern("id=\"" + id + "\"[^>]*" + name + "=\"([^\"]*)\"|" + name +
                             "=\"([^\"]*)\"[^>]*id=\"" + id + "\"");
    return std::regex_search(dom, match, pattern) ? match.str(1) + match.str(2) : "";
}

TEST_F(served_reports_test, page_draws_every_chart_and_shows_the_endpoint_figures)
{
    if (!usemeter_test::file_exists("/usr/bin/chromium"))
        GTEST_SKIP() << "chromium is not installed (scripts/install-deps installs it)";
    const std::string file = home_ / "report.html";
    ASSERT_EQ(run_tool(std::string("stats --html ") + file + " --since 2026-02-15 --until 2026-03-16 --store " +
                       store_uri()).status, 0);
    const json days = json::parse(get(std::string("/api/stats/active?") + range)->body).at("days");
    const json features = json::parse(get(std::string("/api/stats/features?") + range)->body);
    for (const std::string& url : {collector_->url("/report?") + range, "file://" + file}) {
        SCOPED_TRACE(url);
        const usemeter_test::browser_run_t page = usemeter_test::headless_chromium(home_.path(), url, "--dump-dom");
        EXPECT_EQ(page.console, "");
        const std::string& dom = page.out;
        EXPECT_NE(dom.find("data-state=\"ready\""), std::string::npos) << dom.substr(0, 2000);
        EXPECT_EQ(dom.find("data-problems"), std::string::npos);
        for (const char* chart : {"chart-active", "chart-new", "chart-features", "chart-trend", "chart-versions", "chart-systems"}) {
            EXPECT_EQ(attribute_of(dom, chart, "data-painted"), "yes") << chart;
            EXPECT_NE(attribute_of(dom, chart, "data-points"), "0") << chart;
        }
        std::int64_t fresh = 0;
        for (const json& day : days)
            fresh += day.at("new").get<std::int64_t>();
        const json& last = days.back();
        for (const auto& [id, figure] : {std::pair<std::string, json>{"dau", last.at("dau")},
                                         {"wau", last.at("wau")}, {"mau", last.at("mau")}, {"new", fresh}})
            EXPECT_NE(dom.find("id=\"figure-" + id + "\">" + figure.dump() + "<"), std::string::npos) << id;
        std::size_t rows = 0;
        for (std::size_t at = 0; (at = dom.find("<tr", at)) != std::string::npos; ++at)
            ++rows;
        EXPECT_EQ(rows, features.at("features").size() + 1);
    }
    const std::string shot = std::string(USEMETER_TEST_BINARY_DIR) + "/report-page.png";
    usemeter_test::headless_chromium(home_.path(), collector_->url("/report?") + range,
                                     "--screenshot=" + shot + " --window-size=1200,3000");
    EXPECT_TRUE(usemeter_test::file_exists(shot));
}

}  // namespace
