#include "tracelog/log_capture.hpp"

#include <algorithm>
#include <mutex>

#include <log4cplus/spi/loggingevent.h>

namespace tracelog {

// The library logs from its worker threads too.
class log_capture_t::appender_t : public log4cplus::Appender {
public:
    ~appender_t() override { destructorImpl(); }
    void close() override {}

    mutable std::mutex mutex;
    std::vector<log_record_t> records;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& e) override
    {
        std::lock_guard<std::mutex> guard(mutex);
        records.push_back({e.getLogLevel(), e.getMessage(), e.getFile(), e.getLine()});
    }
};

log_capture_t::log_capture_t(const std::string& name)
    : logger_(name == "root" ? log4cplus::Logger::getRoot() : log4cplus::Logger::getInstance(name)),
      old_level_(logger_.getLogLevel()),
      appender_(new appender_t())
{
    logger_.addAppender(appender_);
    logger_.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

log_capture_t::~log_capture_t()
{
    stop();
}

void log_capture_t::stop()
{
    if (!attached_)
        return;
    attached_ = false;
    logger_.removeAppender(appender_);
    logger_.setLogLevel(old_level_);
}

log_capture_t::appender_t& log_capture_t::recorder() const
{
    return static_cast<appender_t&>(*appender_);
}

std::vector<log_record_t> log_capture_t::records() const
{
    std::lock_guard<std::mutex> guard(recorder().mutex);
    return recorder().records;
}

std::vector<std::string> log_capture_t::messages(bool with_traces) const
{
    std::vector<std::string> out;
    for (const log_record_t& r : records())
        if (with_traces || (r.message.rfind("ENTER: ", 0) != 0 && r.message.rfind("EXIT:  ", 0) != 0))
            out.push_back(r.message);
    return out;
}

bool log_capture_t::contains(const std::string& message) const
{
    const std::vector<std::string> all = messages(true);
    return std::find(all.begin(), all.end(), message) != all.end();
}

bool log_capture_t::contains_start(const std::string& start) const
{
    const std::vector<std::string> all = messages(true);
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& message) { return message.rfind(start, 0) == 0; });
}

void log_capture_t::clear()
{
    std::lock_guard<std::mutex> guard(recorder().mutex);
    recorder().records.clear();
}

}  // namespace tracelog
