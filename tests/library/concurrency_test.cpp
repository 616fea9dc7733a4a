// Host threads meeting the library's shared state at once, for ThreadSanitizer to judge.
#include <boost/thread/barrier.hpp>

#include "library/library_test.hpp"

using namespace usemeter_test;

namespace {

constexpr int thread_count = 8;

template <class Body>
void run_together(int n, Body body)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back(body, i);
    for (std::thread& thread : threads)
        thread.join();
}

class concurrency_test : public ::testing::Test, protected loopback_user_t {};

// Each round one thread drops the only reference while the others ask for the instance.
TEST_F(concurrency_test, get_races_the_release_of_the_last_reference)
{
    boost::shared_ptr<usemeter::statistic_t> held = usemeter::statistic_t::get();
    const std::string uuid = held->get_uuid();
    boost::barrier barrier(thread_count);
    std::atomic<int> bad{0};
    run_together(thread_count, [&](int t) {
        for (int round = 0; round < 40; ++round) {
            barrier.wait();
            if (t == round % thread_count)
                held.reset();
            else if (const auto mine = usemeter::statistic_t::get(); !mine || mine->get_uuid() != uuid)
                ++bad;
            barrier.wait();
            if (t == 0)
                held = usemeter::statistic_t::get();
        }
    });
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(proxy.request_count(), 0u);
}

// Destruction right after the last post still delivers all; a host thread keeps its SIGPIPE handler.
TEST_F(concurrency_test, one_connector_takes_bodies_from_many_threads_in_each_threads_order)
{
    struct sigaction mine {};
    mine.sa_handler = [](int) {};
    ::sigaction(SIGPIPE, &mine, nullptr);
    std::atomic<bool> done{false};
    std::atomic<int> swapped{0};
    std::thread watcher([&] {
        for (struct sigaction seen {}; !done;)
            swapped += ::sigaction(SIGPIPE, nullptr, &seen) == 0 && seen.sa_handler != mine.sa_handler;
    });
    const int per_thread = 50;
    {
        usemeter::http_connector_t connector(proxy.url().c_str());
        run_together(thread_count, [&](int t) {
            for (int i = 0; i < per_thread; ++i) {
                connector.post("t=" + std::to_string(t) + "&i=" + std::to_string(i));
                // Beside the worker's transfers; the text ends at its first NUL byte.
                EXPECT_EQ(connector.urlencode(std::string("a b&c\0d", 7)), "a%20b%26c");
            }
        });
    }
    done = true;
    watcher.join();
    EXPECT_EQ(swapped.load(), 0);
    std::vector<int> next(thread_count, 0);
    for (const std::string& body : proxy.bodies()) {
        int t = -1, i = -1;
        ASSERT_TRUE(std::sscanf(body.c_str(), "t=%d&i=%d", &t, &i) == 2 && t >= 0 && t < thread_count) << body;
        EXPECT_EQ(i, next[t]++) << "thread " << t;
    }
    EXPECT_EQ(next, std::vector<int>(thread_count, per_thread));
}

}  // namespace
