// A throwaway clickhouse-server on a free loopback port, with its data in a temporary
// directory: HTTP only, no system service. Started and stopped by its process id; the data
// outlives a stop, so start() after kill() is a restart.
#ifndef USEMETER_TESTS_CLICKHOUSE_SERVER_HPP
#define USEMETER_TESTS_CLICKHOUSE_SERVER_HPP

#include <csignal>
#include <string>

#include <sys/types.h>

#include "support/temp_home.hpp"

namespace usemeter_test {

class clickhouse_server_t {
public:
    clickhouse_server_t();
    ~clickhouse_server_t();  // kills a running server

    // Starts the server and waits until it answers; false (why in error()) when the server
    // is not installed or does not come up within 20 s.
    bool start();
    // Signals the server and waits for it to end.
    void kill(int signal = SIGKILL);

    int port() const { return port_; }
    const std::string& error() const { return error_; }
    // Runs one statement; the TabSeparated answer, or "ERROR ..." .
    std::string query(const std::string& statement) const;

private:
    temp_dir_t dir_;
    int port_ = 0;
    pid_t pid_ = -1;
    std::string error_;
};

}  // namespace usemeter_test

#endif
