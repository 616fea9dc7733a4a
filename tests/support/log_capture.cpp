#include "support/log_capture.hpp"

#include <algorithm>

#include <log4cplus/spi/loggingevent.h>

namespace usemeter_test {

class log_capture_t::appender_t : public log4cplus::Appender {
public:
    ~appender_t() override { destructorImpl(); }
    void close() override {}

    std::vector<log_record_t> snapshot() const
    {
        std::lock_guard<std::mutex> guard(records_mutex_);
        return records_;
    }
    void clear()
    {
        std::lock_guard<std::mutex> guard(records_mutex_);
        records_.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard<std::mutex> guard(records_mutex_);
        records_.push_back(log_record_t{event.getLogLevel(), event.getMessage(), event.getFile(),
                                        event.getLine()});
    }

private:
    mutable std::mutex records_mutex_;
    std::vector<log_record_t> records_;
};

log_capture_t::log_capture_t(const std::string& logger_name)
    : logger_(logger_name == "root" ? log4cplus::Logger::getRoot()
                                    : log4cplus::Logger::getInstance(logger_name)),
      old_level_(logger_.getLogLevel()),
      appender_(new appender_t())
{
    appender_->setName("usemeter-test-capture");
    logger_.addAppender(appender_);
    logger_.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

log_capture_t::~log_capture_t()
{
    logger_.removeAppender(appender_);
    logger_.setLogLevel(old_level_);
}

std::vector<log_record_t> log_capture_t::records() const
{
    return static_cast<appender_t&>(*appender_).snapshot();
}

std::vector<std::string> log_capture_t::messages(bool with_traces) const
{
    std::vector<std::string> out;
    for (const log_record_t& record : records()) {
        const bool is_trace = record.message.rfind("ENTER: ", 0) == 0 ||
                              record.message.rfind("EXIT:  ", 0) == 0;
        if (with_traces || !is_trace)
            out.push_back(record.message);
    }
    return out;
}

bool log_capture_t::contains(const std::string& message) const
{
    const std::vector<std::string> all = messages(true);
    return std::find(all.begin(), all.end(), message) != all.end();
}

void log_capture_t::clear()
{
    static_cast<appender_t&>(*appender_).clear();
}

}  // namespace usemeter_test
