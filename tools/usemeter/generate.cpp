// `collector generate`: realistic synthetic hits stored as the collector stores real ones,
// for demos, trials of the reports and benchmarks.
#include <ctime>
#include <iostream>
#include <string>

#include "collector/reports/generator.hpp"
#include "collector/store/hit.hpp"
#include "common.hpp"

namespace usemeter_tool {

namespace uc = usemeter_collector;

int run_generate(int argc, char** argv)
{
    std::string store = "sqlite:usemeter-hits.db";
    uc::generator_options_t config;
    config.until = uc::utc_day(std::time(nullptr));
    po::options_description options("collector generate options");
    options.add_options()
        ("store", po::value(&store)->default_value(store), "store URI: sqlite:PATH")
        ("product", po::value(&config.product)->default_value(config.product), "product name (an)")
        ("users", po::value(&config.users)->default_value(config.users), "how many users")
        ("days", po::value(&config.days)->default_value(config.days), "how many days of use")
        ("until", po::value(&config.until)->default_value(config.until), "last day YYYY-MM-DD (UTC)")
        ("seed", po::value(&config.seed)->default_value(config.seed), "the same seed gives the same hits");
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter collector generate --store URI [options]", options,
                            values, false))
        return exit_ok;
    if (!uc::is_day(config.until) || config.users < 1 || config.days < 1 || config.days > 3660)
        throw usage_error("--until must be a day YYYY-MM-DD; --users and --days (up to 3660) positive");
    std::string error;
    auto opened = uc::open_store(store, uc::durability_t::normal, error);
    if (!opened)
        throw command_error(error);
    std::int64_t hits = 0;
    if (const uc::outcome_t generated = uc::generate_hits(config, *opened, hits); !generated)
        throw command_error(generated.error);
    std::cout << "generated " << hits << " hits of " << config.users << " users over "
              << config.days << " days ending " << config.until << "\n";
    return exit_ok;
}

}  // namespace usemeter_tool
