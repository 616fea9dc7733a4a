#include "support/clickhouse_server.hpp"

#include <chrono>
#include <thread>

#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "collector/store/clickhouse/clickhouse_http.hpp"

extern char** environ;

namespace usemeter_test {

namespace {

const char* const server_program = "/usr/sbin/clickhouse-server";

int free_loopback_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    close(fd);
    return bound ? ntohs(address.sin_port) : 0;
}

// tests/data's configuration with the directory and port filled in.
std::string config(const std::string& name, const std::string& dir, int port)
{
    std::string text = read_file(USEMETER_TEST_SOURCE_DIR "/data/" + name);
    for (std::size_t at; (at = text.find("@DIR@")) != std::string::npos;)
        text.replace(at, 5, dir);
    const std::size_t at = text.find("@PORT@");
    return at == std::string::npos ? text : text.replace(at, 6, std::to_string(port));
}

}  // namespace

clickhouse_server_t::clickhouse_server_t() : port_(free_loopback_port())
{
    for (const std::string name : {"config.xml", "users.xml"})
        write_file(dir_ / name, config("clickhouse-" + name, dir_.path(), port_));
}

clickhouse_server_t::~clickhouse_server_t()
{
    kill();
}

bool clickhouse_server_t::start()
{
    const std::string config = "--config-file=" + dir_ / "config.xml";
    char* const argv[] = {const_cast<char*>(server_program), const_cast<char*>(config.c_str()), nullptr};
    // Its own output goes to /dev/null: a child that outlived a crashed test would otherwise
    // hold the test's output open.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const bool started = access(server_program, X_OK) == 0 &&
                         posix_spawn(&pid_, server_program, &actions, nullptr, argv, environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!started) {
        pid_ = -1;
        error_ = std::string("cannot start ") + server_program + " (scripts/install-deps installs it)";
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (query("SELECT 1") == "1\n")
            return true;
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            error_ = "clickhouse-server ended at once: " + read_file(dir_ / "log/err.log");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    error_ = "clickhouse-server did not answer within 20 s";
    kill();
    return false;
}

void clickhouse_server_t::kill(int signal)
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, signal);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string clickhouse_server_t::query(const std::string& statement) const
{
    std::string result;
    const auto ran = usemeter_collector::clickhouse_http_t("http://127.0.0.1:" + std::to_string(port_))
                         .run(statement, "", &result);
    return ran ? result : "ERROR " + ran.error;
}

}  // namespace usemeter_test
