// The emulator's network side: listens on the service endpoint 127.0.0.1:20014, accepts any
// number of app connections, cuts their bytes into frames for the Service, writes its frames
// back without ever blocking on a slow app, and runs the Service's timed work in between.
// A connection that sends a malformed frame, or lets too much go unread, is logged and closed;
// the others go on. SIGINT and SIGTERM end run() cleanly.
//
// Threads: one; run() is the whole life of the server. Owns its sockets and the Service.
#ifndef PELK_EMULATOR_SERVER_H
#define PELK_EMULATOR_SERVER_H

#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "Service.h"

namespace PELK {
namespace Emulator {

class Server : public ServiceHost {
public:
    static constexpr int kPort = 20014;
    // A connection with this much unsent is closed: its app does not read its events.
    static constexpr size_t kMaxBacklog = 64u << 20;

    // Log lines go to log, trace lines (when config asks for them) to trace.
    Server(const ServiceConfig& config, FILE* log, FILE* trace);
    ~Server() override;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Serves until SIGINT or SIGTERM: 0 then, 1 when the endpoint or media folder cannot be used.
    int run();

    void deliver(ClientId client, std::vector<char> frame) override;
    size_t backlog(ClientId client) const override;
    int64_t nowMs() const override;
    void log(const std::string& line) override;
    void trace(const std::string& line) override;

private:
    struct Connection {
        int fd = -1;
        FrameReader reader;
        std::deque<std::vector<char>> output;
        size_t nSentOfFirst = 0;
        size_t nBacklog = 0;
        std::string closing;  // why it is to be closed; empty while it stays
    };

    bool open(std::string& error);
    void pollOnce(int timeoutMs);
    void acceptAll();
    void readFrom(ClientId client, Connection& connection);
    void writeTo(Connection& connection);
    void closeMarked();
    void line(FILE* out, const std::string& text);

    ServiceConfig m_config;
    FILE* m_log;
    FILE* m_trace;
    Service m_service;
    int m_listenFd = -1;
    int m_signalFd = -1;
    bool m_fStopping = false;
    ClientId m_nLastClient = 0;
    std::map<ClientId, Connection> m_connections;
};

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_SERVER_H
