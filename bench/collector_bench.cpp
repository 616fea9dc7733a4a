// The collector under load: 32 kept-alive clients (wrk, with a Lua script that varies the
// client id) against a collector that stores every hit, and against the same server answering
// 200 without storing, in interleaved rounds of the same run (medians of three). The gap is the price of the
// group commit; a client waits for its hit's COMMIT before it is answered.
//
// Prints "RATIO <name> <value> (target ...)" lines after Google Benchmark's own table.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "collector/collector.hpp"
#include "support/temp_home.hpp"

extern char** environ;

namespace {

namespace uc = usemeter_collector;

const char* const wrk_script = R"(
counter = 0
request = function()
  counter = counter + 1
  return wrk.format("POST", "/collect", {["Content-Type"] = "application/x-www-form-urlencoded"},
    "v=1&tid=UA-12345678-42&t=event&an=trovix&av=2024.1.0&cd1=posix&cd2=Debian%20GNU%2FLinux%2012&cd3=n" ..
    "&ec=gui&el=open.file&cid=" .. (counter % 5000))
end
)";

struct load_t {
    double rps = 0;
    double p99_ms = 0;
};

std::map<std::string, std::vector<load_t>> results;

double milliseconds(const std::string& number, const std::string& unit)
{
    const double value = std::atof(number.c_str());
    return unit == "us" ? value / 1000 : unit == "s" ? value * 1000 : value;
}

// Runs wrk against url and reads its rate and 99th percentile; false when wrk cannot run.
bool run_wrk(const std::string& url, const std::string& script, const std::string& output, load_t& load)
{
    const std::string command = "wrk -t2 -c32 -d3s --latency -s '" + script + "' " + url + " >'" + output + "' 2>&1";
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0)
        return false;
    std::ifstream in(output);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(R"(Requests/sec:\s+([0-9.]+))")))
        return false;
    load.rps = std::atof(match[1].str().c_str());
    if (!std::regex_search(text, match, std::regex(R"(\n\s+99%\s+([0-9.]+)(us|ms|s))")))
        return false;
    load.p99_ms = milliseconds(match[1], match[2]);
    return true;
}

bool start_collector(uc::collector_t& collector, benchmark::State& state)
{
    if (collector.start())
        return true;
    state.SkipWithError("the collector did not start");
    return false;
}

// Each iteration is one round against the storing collector, then one against the
// answer-only one, so that a noisy neighbour hits both alike.
void collector_load(benchmark::State& state)
{
    usemeter_test::temp_dir_t dir;
    const std::string script = dir / "hit.lua";
    usemeter_test::write_file(script, wrk_script);
    uc::collector_options_t options;
    options.listen = "127.0.0.1:0";
    options.store = "sqlite:" + dir / "hits.db";
    uc::collector_t storing(options);
    options.answer = 200;
    uc::collector_t answering(options);
    if (!start_collector(storing, state) || !start_collector(answering, state))
        return;
    for (auto _ : state) {
        for (uc::collector_t* collector : {&storing, &answering}) {
            load_t load;
            if (!run_wrk(collector->url("/collect"), script, dir / "wrk.out", load)) {
                state.SkipWithError("wrk did not run (scripts/install-deps installs it)");
                return;
            }
            const std::string name = collector == &storing ? "stored" : "answer_only";
            state.counters[name + "_hits_per_s"] = load.rps;
            state.counters[name + "_p99_ms"] = load.p99_ms;
            results[name].push_back(load);
        }
    }
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

double median_of(const std::string& name, double load_t::*field)
{
    std::vector<double> values;
    for (const load_t& load : results[name])
        values.push_back(load.*field);
    return median(values);
}

}  // namespace

BENCHMARK(collector_load)->Iterations(3)->Unit(benchmark::kSecond);

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (results["stored"].empty() || results["answer_only"].empty())
        return 0;
    const double stored_rps = median_of("stored", &load_t::rps);
    const double answer_rps = median_of("answer_only", &load_t::rps);
    const double stored_p99 = median_of("stored", &load_t::p99_ms);
    const double answer_p99 = median_of("answer_only", &load_t::p99_ms);
    std::printf("hits per second with 32 clients: stored %.0f, answered without storing %.0f\n",
                stored_rps, answer_rps);
    std::printf("p99 answer latency ms: stored %.2f, answered without storing %.2f\n", stored_p99,
                answer_p99);
    std::printf("RATIO collector_stored_vs_answer_only_rate %.3f (target >= 0.6)\n", stored_rps / answer_rps);
    std::printf("RATIO collector_p99_stored_vs_answer_only %.3f (reported; no target)\n",
                stored_p99 / answer_p99);
    return 0;
}
