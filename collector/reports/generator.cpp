#include "collector/reports/generator.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <random>

#include "collector/reports/reports.hpp"

namespace usemeter_collector {

namespace {

struct release_t {
    const char* version;
    double at;  // share of the generated days before it comes out
};
const release_t releases[] = {{"2025.1", 0.0}, {"2025.2", 0.35}, {"2026.1", 0.7}};

struct feature_t {
    const char* category;
    const char* label;
    std::size_t since_release;  // a category that appears with a version
};
const feature_t catalogue[] = {
    {"run", "collect", 0}, {"run", "analyze", 0}, {"run", "report", 0}, {"import", "csv", 0},
    {"import", "hdf5", 0}, {"export", "pdf", 0},  {"export", "csv", 0},  {"view", "graph", 0},
    {"view", "table", 0},  {"script", "", 0},     {"share", "link", 2},  {"share", "email", 2},
};

struct system_t {
    const char* name;
    double weight;
};
const system_t systems[] = {{"Ubuntu 22.04", 35}, {"Debian 12", 25}, {"Rocky Linux 9", 20},
                            {"Ubuntu 24.04", 15}, {"Fedora 40", 5}};

// The library counts a user as active after a few days of use.
const int days_until_active = 3;
const double weekend_factor = 0.25;

struct user_t {
    std::string cid, system;
    std::int64_t joins = 0, leaves = 0;    // day offsets; leaves is exclusive
    double chance = 0, hits_per_day = 0;   // of using the product on a weekday; when used
    std::vector<std::int64_t> upgrades;    // day offset each release reaches this user
    std::vector<double> taste;             // weight of each catalogue entry
    int days_used = 0;
};

class model_t {
public:
    explicit model_t(const generator_options_t& options) : options_(options), rng_(options.seed) {}

    user_t make_user()
    {
        user_t user;
        user.cid = make_cid();
        const std::vector<double> weights = weights_of_systems();
        std::discrete_distribution<std::size_t> system_of(weights.begin(), weights.end());
        user.system = systems[system_of(rng_)].name;
        user.joins = uniform(0, 1) < 0.3 ? 0 : integer(0, options_.days - 1);
        user.leaves = uniform(0, 1) < 0.2 ? integer(user.joins + 1, options_.days) : options_.days;
        user.chance = uniform(0.15, 0.95);
        // A few heavy users send most hits, as with any desktop tool.
        user.hits_per_day = std::lognormal_distribution<>(2.5, 0.8)(rng_);
        const bool laggard = uniform(0, 1) < 0.1;
        for (const release_t& release : releases) {
            const auto out = static_cast<std::int64_t>(release.at * static_cast<double>(options_.days));
            const auto delay = static_cast<std::int64_t>(std::exponential_distribution<>(1.0 / 6)(rng_));
            user.upgrades.push_back(release.at == 0 ? 0 : (laggard ? options_.days : out + delay));
        }
        for (std::size_t i = 0; i < std::size(catalogue); ++i)
            user.taste.push_back(std::pow(uniform(0, 1), 4));
        return user;
    }

    // The user's hits of one day (day offset, with its first second since the epoch).
    void use(user_t& user, std::int64_t offset, std::int64_t start, std::vector<hit_t>& hits)
    {
        if (offset < user.joins || offset >= user.leaves)
            return;
        const std::int64_t day = instant_day_number(start);
        const bool weekend = day - monday_of(day) >= 5;  // Saturday or Sunday
        if (uniform(0, 1) >= user.chance * (weekend ? weekend_factor : 1.0))
            return;
        const std::size_t release = release_of(user, offset);
        std::vector<double> weights;
        for (std::size_t i = 0; i < std::size(catalogue); ++i)
            weights.push_back(catalogue[i].since_release <= release ? user.taste[i] + 1e-3 : 0.0);
        std::discrete_distribution<std::size_t> feature_of(weights.begin(), weights.end());
        const bool active = ++user.days_used > days_until_active;
        const auto count = 1 + std::poisson_distribution<int>(user.hits_per_day)(rng_);
        for (int i = 0; i < count; ++i) {
            const feature_t& feature = catalogue[feature_of(rng_)];
            hits.push_back({start + integer(8 * 3600, 20 * 3600), "UA-12345678-42", user.cid,
                            options_.product, releases[release].version, "posix", user.system,
                            active ? "y" : "n", feature.category, feature.label});
        }
    }

private:
    static std::vector<double> weights_of_systems()
    {
        std::vector<double> weights;
        for (const system_t& system : systems)
            weights.push_back(system.weight);
        return weights;
    }

    static std::size_t release_of(const user_t& user, std::int64_t offset)
    {
        std::size_t release = 0;
        for (std::size_t i = 0; i < user.upgrades.size(); ++i)
            if (user.upgrades[i] <= offset)
                release = i;
        return release;
    }

    std::string make_cid()
    {
        std::uniform_int_distribution<std::uint64_t> bits;
        const std::uint64_t a = bits(rng_), b = bits(rng_);
        char text[40];
        std::snprintf(text, sizeof text, "%08llX-%04llX-4%03llX-8%03llX-%012llX",
                      static_cast<unsigned long long>(a >> 32),
                      static_cast<unsigned long long>((a >> 16) & 0xFFFF),
                      static_cast<unsigned long long>(a & 0xFFF),
                      static_cast<unsigned long long>(b >> 52),
                      static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFull));
        return text;
    }

    double uniform(double low, double high) { return std::uniform_real_distribution<>(low, high)(rng_); }
    std::int64_t integer(std::int64_t low, std::int64_t high)
    {
        return std::uniform_int_distribution<std::int64_t>(low, high)(rng_);
    }

    const generator_options_t& options_;
    std::mt19937_64 rng_;
};

outcome_t append_in_batches(store_t& store, const std::vector<hit_t>& hits, std::size_t batch)
{
    for (std::size_t at = 0; at < hits.size(); at += batch) {
        const auto end = hits.begin() + static_cast<std::ptrdiff_t>(std::min(hits.size(), at + batch));
        if (outcome_t stored = store.append({hits.begin() + static_cast<std::ptrdiff_t>(at), end}); !stored)
            return stored;
    }
    return {};
}

}  // namespace

outcome_t generate_hits(const generator_options_t& options, store_t& store, std::int64_t& hits)
{
    hits = 0;
    if (!is_day(options.until) || options.users < 1 || options.days < 1 || options.batch < 1)
        return outcome_t::failure("the generator needs a last day, users, days and a batch size");
    model_t model(options);
    std::vector<user_t> users;
    for (std::int64_t i = 0; i < options.users; ++i)
        users.push_back(model.make_user());
    const std::int64_t first = day_number(options.until) - options.days + 1;
    std::vector<hit_t> day_hits;
    for (std::int64_t offset = 0; offset < options.days; ++offset) {
        day_hits.clear();
        for (user_t& user : users)
            model.use(user, offset, (first + offset) * 86400, day_hits);
        std::sort(day_hits.begin(), day_hits.end(),
                  [](const hit_t& a, const hit_t& b) { return a.received < b.received; });
        if (outcome_t stored = append_in_batches(store, day_hits, options.batch); !stored)
            return stored;
        hits += static_cast<std::int64_t>(day_hits.size());
    }
    return {};
}

}  // namespace usemeter_collector
