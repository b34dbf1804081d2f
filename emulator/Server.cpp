#include "Server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

namespace PELK {
namespace Emulator {

namespace {

// Bytes read from one connection per turn of the loop, so that no app starves the others.
constexpr size_t kReadBytes = 64u << 10;

}  // namespace

Server::Server(const ServiceConfig& config, FILE* log, FILE* trace)
    : m_config(config), m_log(log), m_trace(trace), m_service(config, *this) {}

Server::~Server() {
    for (auto& entry : m_connections) {
        close(entry.second.fd);
    }
    for (int fd : {m_listenFd, m_signalFd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void Server::line(FILE* out, const std::string& text) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local = {};
    localtime_r(&now.tv_sec, &local);
    fprintf(out, "%02d:%02d:%02d.%03ld %s\n", local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1000000,
            text.c_str());
    fflush(out);
}

void Server::log(const std::string& text) {
    line(m_log, text);
}

void Server::trace(const std::string& text) {
    line(m_trace, text);
}

int64_t Server::nowMs() const {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool Server::open(std::string& error) {
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    // The stop signals arrive as readable data among the sockets; SIGPIPE is never wanted.
    signal(SIGPIPE, SIG_IGN);
    if (sigprocmask(SIG_BLOCK, &stops, nullptr) != 0 || (m_signalFd = signalfd(-1, &stops, SFD_CLOEXEC)) < 0) {
        error = std::string("cannot watch for signals: ") + strerror(errno);
        return false;
    }
    m_listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int one = 1;
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(kPort);
    if (m_listenFd < 0 || setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        bind(m_listenFd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(m_listenFd, SOMAXCONN) != 0) {
        error = "cannot listen on 127.0.0.1:" + std::to_string(kPort) + ": " + strerror(errno);
        return false;
    }
    return m_service.start(error);
}

int Server::run() {
    std::string error;
    if (!open(error)) {
        log(error);
        return 1;
    }
    log("listening on 127.0.0.1:" + std::to_string(kPort));
    while (!m_fStopping) {
        const int64_t due = m_service.tick();
        for (auto& entry : m_connections) {
            writeTo(entry.second);
        }
        closeMarked();
        pollOnce(due < 0 ? -1 : static_cast<int>(due < 1000 ? due : 1000));
        closeMarked();
    }
    m_service.shutdown();
    log("stopped, " + std::to_string(m_connections.size()) + " connection(s) closed");
    return 0;
}

void Server::pollOnce(int timeoutMs) {
    std::vector<struct pollfd> watched = {{m_signalFd, POLLIN, 0}, {m_listenFd, POLLIN, 0}};
    std::vector<ClientId> clients;
    for (const auto& entry : m_connections) {
        const short events = static_cast<short>(POLLIN | (entry.second.output.empty() ? 0 : POLLOUT));
        watched.push_back({entry.second.fd, events, 0});
        clients.push_back(entry.first);
    }
    if (poll(watched.data(), watched.size(), timeoutMs) < 0) {
        if (errno != EINTR) {
            log(std::string("poll failed: ") + strerror(errno));
            m_fStopping = true;
        }
        return;
    }
    if (watched[0].revents != 0) {
        struct signalfd_siginfo info = {};
        if (read(m_signalFd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
            log(std::string("stopping on ") + strsignal(static_cast<int>(info.ssi_signo)));
        }
        m_fStopping = true;
        return;
    }
    if (watched[1].revents != 0) {
        acceptAll();
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        const auto found = m_connections.find(clients[i]);
        const short revents = watched[i + 2].revents;
        if (found == m_connections.end() || revents == 0) {
            continue;
        }
        if ((revents & POLLOUT) != 0) {
            writeTo(found->second);
        }
        if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            readFrom(found->first, found->second);
        }
    }
}

void Server::acceptAll() {
    for (;;) {
        const int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                log(std::string("accept failed: ") + strerror(errno));
            }
            return;
        }
        // A reply written right behind an event must not wait for the client's delayed ack.
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        const ClientId client = ++m_nLastClient;
        m_connections[client].fd = fd;
        m_service.connect(client);
        log("c" + std::to_string(client) + ": connected");
    }
}

void Server::readFrom(ClientId client, Connection& connection) {
    if (!connection.closing.empty()) {
        return;
    }
    char buffer[kReadBytes];
    const ssize_t got = recv(connection.fd, buffer, sizeof(buffer), 0);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        connection.closing = got == 0 ? "closed by the app" : std::string("read failed: ") + strerror(errno);
        return;
    }
    connection.reader.append(buffer, static_cast<size_t>(got));
    const char* body = nullptr;
    uint32_t length = 0;
    for (;;) {
        const FrameReader::Status status = connection.reader.next(body, length);
        if (status == FrameReader::NEED_MORE) {
            return;
        }
        if (status == FrameReader::MALFORMED) {
            connection.closing = "frame length " + std::to_string(length) + " is outside 4.." +
                                 std::to_string(Service::kMaxBody) + " (malformed or oversized frame)";
            return;
        }
        if (!m_service.receive(client, body, length)) {
            connection.closing = "malformed request";
            return;
        }
    }
}

void Server::writeTo(Connection& connection) {
    while (!connection.output.empty() && connection.closing.empty()) {
        const std::vector<char>& frame = connection.output.front();
        const ssize_t sent = send(connection.fd, frame.data() + connection.nSentOfFirst,
                                  frame.size() - connection.nSentOfFirst, MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            return;
        }
        if (sent <= 0) {
            connection.closing = std::string("write failed: ") + strerror(errno);
            return;
        }
        connection.nSentOfFirst += static_cast<size_t>(sent);
        connection.nBacklog -= static_cast<size_t>(sent);
        if (connection.nSentOfFirst == frame.size()) {
            connection.output.pop_front();
            connection.nSentOfFirst = 0;
        }
    }
}

void Server::closeMarked() {
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        if (it->second.closing.empty()) {
            ++it;
            continue;
        }
        const ClientId client = it->first;
        log("c" + std::to_string(client) + ": disconnected, " + it->second.closing);
        close(it->second.fd);
        it = m_connections.erase(it);
        // The service may queue events for others (the app left), but none for this client.
        m_service.disconnect(client);
    }
}

void Server::deliver(ClientId client, std::vector<char> frame) {
    const auto found = m_connections.find(client);
    if (found == m_connections.end() || !found->second.closing.empty()) {
        return;
    }
    Connection& connection = found->second;
    connection.nBacklog += frame.size();
    connection.output.push_back(std::move(frame));
    if (connection.nBacklog > kMaxBacklog) {
        connection.closing = "more than " + std::to_string(kMaxBacklog >> 20) + " MiB of events left unread";
    }
}

size_t Server::backlog(ClientId client) const {
    const auto found = m_connections.find(client);
    return found == m_connections.end() ? 0 : found->second.nBacklog;
}

}  // namespace Emulator
}  // namespace PELK
