// `collector`: the collector service in the foreground, and the owners' duties on its store
// (`collector export`, `collector erase`). The service itself lives in collector/.
#include <csignal>
#include <iostream>
#include <string>

#include <pthread.h>


#include "collector/collector.hpp"
#include "collector/reports/report_page.hpp"
#include "common.hpp"
#include "tracelog/host_setup.hpp"

namespace usemeter_tool {

namespace {

namespace uc = usemeter_collector;

uc::durability_t durability_named(const std::string& name)
{
    if (name == "normal")
        return uc::durability_t::normal;
    if (name == "full")
        return uc::durability_t::full;
    throw usage_error("--durability must be normal or full, not '" + name + "'");
}

void require_day(const std::string& option, const std::string& value)
{
    if (!value.empty() && !uc::is_day(value))
        throw usage_error(option + " must be a day YYYY-MM-DD, not '" + value + "'");
}

std::unique_ptr<uc::store_t> open_or_fail(const std::string& uri)
{
    if (!uc::store_exists(uri))
        throw command_error("no store at " + uri);
    std::string error;
    auto store = uc::open_store(uri, uc::durability_t::normal, error);
    if (!store)
        throw command_error(error);
    return store;
}

int run_export(int argc, char** argv)
{
    std::string store, since, until;
    po::options_description options("collector export options");
    options.add_options()
        ("store", po::value(&store)->required(),
         "store URI: sqlite:PATH or clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE")
        ("since", po::value(&since), "first day YYYY-MM-DD (UTC), inclusive")
        ("until", po::value(&until), "last day YYYY-MM-DD (UTC), inclusive");
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter collector export --store URI [--since DAY] [--until DAY]",
                            options, values, false))
        return exit_ok;
    require_day("--since", since);
    require_day("--until", until);
    const uc::outcome_t outcome = open_or_fail(store)->export_csv(std::cout, since, until);
    if (!outcome)
        throw command_error(outcome.error);
    return exit_ok;
}

int run_erase(int argc, char** argv)
{
    std::string store, cid;
    po::options_description options("collector erase options");
    options.add_options()
        ("store", po::value(&store)->required(),
         "store URI: sqlite:PATH or clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE")
        ("cid", po::value(&cid)->required(), "client id whose hits are erased");
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter collector erase --store URI --cid CID", options,
                            values, false))
        return exit_ok;
    std::int64_t erased = 0;
    const uc::outcome_t outcome = open_or_fail(store)->erase_client(cid, erased);
    if (!outcome)
        throw command_error(outcome.error);
    std::cout << "erased " << erased << " hits\n";
    return exit_ok;
}

// The report page and its JSON, read from the store the collector writes.
void mount_reports(uc::collector_options_t& config, const std::string& token_file)
{
    std::string token;
    if (!token_file.empty())
        if (const uc::outcome_t read = uc::read_report_token(token_file, token); !read)
            throw command_error(read.error);
    auto routes = std::make_shared<uc::report_routes_t>(config.store, token);
    config.report_token = token;
    config.mount = [routes](uc::http_server_t& server) { routes->mount(server); };
}

uc::collector_options_t parse_service_options(int argc, char** argv, bool& help)
{
    uc::collector_options_t config;
    std::string durability = "normal";
    int hold_ms = 0;
    std::string report_token_file;
    po::options_description options("collector options");
    options.add_options()
        ("listen", po::value(&config.listen)->default_value(config.listen),
         "numeric ADDR:PORT to listen on (port 0: any free port)")
        ("store", po::value(&config.store)->default_value(config.store),
         "store URI: sqlite:PATH or clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE")
        ("spool", po::value(&config.spool.path)->default_value(config.spool.path),
         "with ClickHouse: the SQLite file where hits wait until ClickHouse has them")
        ("spool-max-hits", po::value(&config.spool.max_hits)->default_value(config.spool.max_hits),
         "with ClickHouse: hits the spool holds at most; past that hits are answered 503")
        ("durability", po::value(&durability)->default_value(durability),
         "normal: survives a crash of the collector; full: also a power loss (slower)")
        ("print", po::bool_switch(&config.print), "show each hit request decoded on standard output")
        ("answer", po::value(&config.answer), "answer every hit request with STATUS, store nothing")
        ("hold", po::value(&hold_ms), "hold every hit request MS milliseconds before serving it")
        ("reset", "close every hit request's connection without an answer")
        ("retention-days", po::value(&config.retention_days),
         "delete hits received more than N UTC days ago, at start and hourly")
        ("report-token-file", po::value(&report_token_file),
         "first line: the token the reports and /rejections need unless asked for as localhost over loopback")
        ("max-connections", po::value(&config.limits.max_connections)->default_value(config.limits.max_connections),
         "connections open at once; more are closed at once")
        ("max-connections-per-address",
         po::value(&config.limits.max_connections_per_address)->default_value(config.limits.max_connections_per_address),
         "connections one client address may hold at once (0: no limit)")
        ("access-log", po::value(&config.access_log.path),
         "append one line per request to FILE: time, status, body bytes, path, refusal reason")
        ("access-log-addresses", po::bool_switch(&config.access_log.addresses),
         "also write each request's client address to the access log");
    po::variables_map values;
    help = !parse_command_line(argc, argv,
                               "usemeter collector [options] | collector export ... | collector erase ...",
                               options, values, false);
    config.durability = durability_named(durability);
    if (!uc::is_listen_address(config.listen))
        throw usage_error("--listen needs a numeric ADDR:PORT, not '" + config.listen + "'");
    if (values.count("answer") && (config.answer < 100 || config.answer > 599))
        throw usage_error("--answer must be an HTTP status between 100 and 599, not " +
                          std::to_string(config.answer));
    if (hold_ms < 0 || config.retention_days < 0 || config.limits.max_connections < 1 || config.spool.max_hits < 1)
        throw usage_error("--hold, --retention-days, --max-connections and --spool-max-hits take positive numbers");
    config.hold_ms = hold_ms;
    config.reset = values.count("reset") > 0;
    mount_reports(config, report_token_file);
    return config;
}

}  // namespace

int run_collector(int argc, char** argv)
{
    if (argc > 1 && std::string(argv[1]) == "export")
        return run_export(argc - 1, argv + 1);
    if (argc > 1 && std::string(argv[1]) == "erase")
        return run_erase(argc - 1, argv + 1);
    if (argc > 1 && std::string(argv[1]) == "generate")
        return run_generate(argc - 1, argv + 1);
    bool help = false;
    uc::collector_options_t options = parse_service_options(argc, argv, help);
    if (help)
        return exit_ok;

    // Blocked before any thread starts, so that only the wait below receives them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    tracelog::log_to_stderr("usemeter.collector", "usemeter collector: ");
    uc::collector_t collector(options);
    const uc::outcome_t started = collector.start();
    if (!started)
        throw command_error(started.error);
    std::cout << "listening on " << collector.base_url() << std::endl;

    int received = 0;
    sigwait(&stop_signals, &received);
    collector.stop();
    return exit_ok;
}

}  // namespace usemeter_tool
