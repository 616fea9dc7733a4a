// The ingest road's units on their own: what a form body becomes, and the commit queue's
// hand-off (answered only once stored, a request never split, failures reach their waiters);
// the fuzz target's kept inputs replayed.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

#include <boost/filesystem.hpp>

#include "collector/ingest/commit_queue.hpp"
#include "collector/ingest/hit_form.hpp"
#include "support/temp_home.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

using namespace usemeter_collector;

namespace {

const std::string valid = "v=1&tid=UA-1&cid=c1&t=event&an=trovix&av=1.0&ec=gui&el=open";

std::string reason_for(const std::string& body)
{
    hit_t hit;
    return name_of(read_hit(body, 42, hit));
}

// Every stored field is bounded and UTF-8; the first of a repeated key counts.
TEST(hit_form, each_body_becomes_its_hit_or_its_reason)
{
    const std::pair<std::string, std::string> read[] = {
        {valid, "UA-1|c1|trovix|1.0||||gui|open"},
        {"v=1&tid=T&cid=a+b%2B%41%zz%&t=event&ec=e&cd1=x&cd2=y&cd3=y&ec=second", "T|a b+A%zz%|||x|y|y|e|"}};
    for (const auto& [body, fields] : read) {
        hit_t hit;
        ASSERT_EQ(name_of(read_hit(body, 42, hit)), std::string("none"));
        std::string shown;
        for (const std::string* field : hit.fields())
            shown += (shown.empty() ? "" : "|") + *field;
        EXPECT_EQ(shown, fields);
        EXPECT_EQ(hit.received, 42);
    }
    const std::pair<std::string, const char*> rejected[] = {
        {"v=2&tid=T&cid=c&t=event&ec=a", "bad_version"},    {"tid=T&cid=c&t=event&ec=a", "bad_version"},
        {"v=1&cid=c&t=event&ec=a", "missing_tid"},          {"v=1&tid=T&cid=&t=event&ec=a", "missing_cid"},
        {"v=1&tid=T&cid=c&t=click&ec=a", "bad_type"},       {"v=1&tid=T&cid=c&ec=a", "bad_type"},
        {"v=1&tid=T&cid=c&t=event&el=a", "missing_category"}, {"v=1&tid=T&cid=c&t=pageview", "unsupported_type"},
    };
    for (const auto& [body, reason] : rejected)
        EXPECT_EQ(reason_for(body), reason) << body;
    for (const auto& [key, limit] : std::map<std::string, std::size_t>{
             {"an", 100}, {"av", 100}, {"ec", 150}, {"el", 500}, {"cid", 150}, {"tid", 150}, {"cd12", 150}}) {
        EXPECT_EQ(reason_for(key + "=" + std::string(limit, 'x') + "&" + valid), "none") << key;
        EXPECT_EQ(reason_for(key + "=" + std::string(limit + 1, 'x') + "&" + valid), "too_long") << key;
    }
    // Stray bytes, an overlong form, a surrogate, past U+10FFFF, a cut sequence; é is fine.
    for (const char* bad : {"el=%FF", "ec=%C0%AF", "cid=%ED%A0%80", "cd2=%F4%90%80%80", "av=%E2%82"})
        EXPECT_EQ(reason_for(bad + ("&" + valid)), "bad_encoding") << bad;
    EXPECT_EQ(reason_for("ec=%C3%A9&" + valid), "none");
    EXPECT_EQ(batch_lines("a\r\n\nb\n\r\nc"), (std::vector<std::string>{"a", "b", "c"}));
}

// The fuzz target's seeds and every input that ever failed it, once each: a failed property aborts.
TEST(hit_form, fuzz_inputs_replay_without_a_failed_property)
{
    std::size_t replayed = 0;
    for (const std::string kept : {"corpus", "crashers"})
        for (const auto& input : boost::filesystem::directory_iterator(
                 USEMETER_TEST_SOURCE_DIR "/fuzz/" + kept + "/fuzz_hit_form"))
            if (input.path().filename().c_str()[0] != '.') {  // dot files keep empty folders in git
                std::fprintf(stderr, "replay %s\n", input.path().c_str());
                const std::string bytes = usemeter_test::read_file(input.path().string());
                LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
                ++replayed;
            }
    EXPECT_GE(replayed, 5u);
}

// Records each transaction's cids; fails them while `failing` is set.
struct recording_store_t : store_t {
    std::mutex mutex;
    std::vector<std::vector<std::string>> transactions;
    std::atomic<bool> failing{false};
    outcome_t append(const std::vector<hit_t>& hits) override
    {
        if (failing)
            return outcome_t::failure("disk full");
        std::lock_guard<std::mutex> lock(mutex);
        transactions.emplace_back();
        for (const hit_t& hit : hits)
            transactions.back().push_back(hit.cid);
        return {};
    }
    bool holds(const std::string& cid)
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& transaction : transactions)
            if (std::find(transaction.begin(), transaction.end(), cid) != transaction.end())
                return true;
        return false;
    }
    outcome_t export_csv(std::ostream&, const std::string&, const std::string&) override { return {}; }
    outcome_t erase_client(const std::string&, std::int64_t&) override { return {}; }
    outcome_t erase_before(const std::string&, std::int64_t&) override { return {}; }
};

std::vector<hit_t> request(const std::string& name, int hits)
{
    std::vector<hit_t> request(hits);
    for (int i = 0; i < hits; ++i)
        request[i].cid = name + "." + std::to_string(i);
    return request;
}

// A failed transaction fails its waiters and the next is tried afresh; under load every request
// is answered only once the store holds it, whole in one transaction of at most max_group hits.
TEST(commit_queue, answers_after_the_store_holds_whole_requests_in_groups_of_at_most_max)
{
    recording_store_t store;
    std::atomic<std::size_t> observed{0};
    std::vector<std::string> errors;
    commit_queue_t queue(store, [&](const outcome_t& o, std::size_t hits, double) {
        observed += o ? hits : 0;
        if (!o)
            errors.push_back(o.error);
    }, 6);
    store.failing = true;
    EXPECT_EQ(queue.commit(request("failed", 2)).error, "disk full");
    store.failing = false;
    std::atomic<int> unheld{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 8; ++t)
        senders.emplace_back([&, t] {
            for (int n = 0; n < 60; ++n) {
                const std::string name = std::to_string(t) + "-" + std::to_string(n);
                ASSERT_TRUE(queue.commit(request(name, 1 + n % 3)));
                unheld += !store.holds(name + "." + std::to_string(n % 3));
            }
        });
    for (std::thread& sender : senders)
        sender.join();
    queue.stop();
    EXPECT_EQ(unheld, 0);
    EXPECT_EQ(errors, std::vector<std::string>{"disk full"});
    std::map<std::string, std::size_t> transaction_of;  // request -> its transaction
    std::size_t hits = 0;
    for (std::size_t i = 0; i < store.transactions.size(); ++i) {
        EXPECT_LE(store.transactions[i].size(), 6u);
        for (const std::string& cid : store.transactions[i]) {
            EXPECT_NE(cid.rfind("failed", 0), 0u);
            const auto placed = transaction_of.emplace(cid.substr(0, cid.find('.')), i).first;
            EXPECT_EQ(placed->second, i) << cid << " split from its request";
            ++hits;
        }
    }
    EXPECT_EQ(hits, 8u * (20 * 1 + 20 * 2 + 20 * 3));
    EXPECT_EQ(observed, hits);
    EXPECT_EQ(queue.depth(), 0u);
    EXPECT_EQ(queue.commit(request("late", 1)).error, "the collector is stopping");
}

}  // namespace
