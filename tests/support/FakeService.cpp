#include "support/FakeService.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace pelktest {

Bytes body(int32_t actionID, std::initializer_list<int32_t> words) {
    B builder;
    builder.i32(actionID);
    for (int32_t word : words) builder.i32(word);
    return builder.v;
}

Bytes frame(const Bytes& messageBody) {
    return B().i32(static_cast<int64_t>(messageBody.size())).add(messageBody).v;
}

int32_t actionIdOf(const Bytes& messageBody) {
    return messageBody.size() < 4 ? -1 : readInt32(messageBody, 0);
}

std::string readField(const Bytes& bytes, size_t offset, size_t size) {
    if (offset + size > bytes.size()) {
        ADD_FAILURE() << "no field of " << size << " at " << offset << " in " << bytes.size() << " bytes";
        return std::string(size, '\0');
    }
    return std::string(bytes.begin() + static_cast<long>(offset), bytes.begin() + static_cast<long>(offset + size));
}

int32_t readInt32(const Bytes& bytes, size_t offset) {
    const std::string field = readField(bytes, offset, 4);
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(field[i]);
    return static_cast<int32_t>(value);
}

std::string readText(const Bytes& bytes, size_t offset, size_t size) {
    const std::string field = readField(bytes, offset, size);
    return field.substr(0, strnlen(field.c_str(), size));
}

FakeService::FakeService() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(kPort);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 8) != 0) {
        close(fd);
        return;
    }
    m_listenFd = fd;
    m_thread = std::thread(&FakeService::serve, this);
}

FakeService::~FakeService() {
    m_stopping = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    dropClient(false);
    if (m_listenFd >= 0) {
        close(m_listenFd);
    }
}

// A client's connect can complete before this side has accepted it: this waits for the accept.
bool FakeService::sendRaw(const Bytes& bytes) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_clientFd >= 0; }) &&
           writeAll(bytes.data(), bytes.size());
}

std::vector<Bytes> FakeService::received(int32_t actionID) const {
    std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<Bytes> matching;
    std::copy_if(m_received.begin(), m_received.end(), std::back_inserter(matching),
                 [&](const Bytes& request) { return actionIdOf(request) == actionID; });
    return matching;
}

// REQUIRES: m_mutex held.
bool FakeService::writeAll(const uint8_t* data, size_t size) {
    size_t done = 0;
    while (done < size && m_clientFd >= 0) {
        const ssize_t sent = send(m_clientFd, data + done, size - done, MSG_NOSIGNAL);
        if (sent > 0) {
            done += static_cast<size_t>(sent);
        } else if (sent == 0 || errno != EINTR) {
            return false;
        }
    }
    return done == size;
}

void FakeService::dropClient(bool reset) {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_clientFd < 0) {
        return;
    }
    if (reset) {
        struct linger abortive = {1, 0};
        setsockopt(m_clientFd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
    }
    close(m_clientFd);
    m_clientFd = -1;
    m_inbox.clear();
    m_changed.notify_all();
}

// Polls in short slices, so that a stall, a drop or the end is seen without being woken.
void FakeService::serve() {
    while (!m_stopping) {
        int clientFd;
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            clientFd = m_stalled ? -1 : m_clientFd;
        }
        struct pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {clientFd, POLLIN, 0}};
        if (poll(fds, 2, 10) <= 0) {
            continue;
        }
        const int accepted = (fds[0].revents & POLLIN) != 0 ? accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (accepted >= 0) {
            dropClient(false);  // a client that reconnects has given its old connection up
            // An event that follows a reply must not hold the next reply back until the client's
            // delayed acknowledgement.
            int one = 1;
            setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
            std::lock_guard<std::mutex> guard(m_mutex);
            m_clientFd = accepted;
            ++m_connections;
            m_changed.notify_all();
        }
        if ((fds[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !readFromClient(clientFd)) {
            dropClient(false);
        }
    }
}

// False when the client has closed the connection or it failed.
bool FakeService::readFromClient(int fd) {
    uint8_t chunk[65536];
    std::vector<std::pair<Bytes, Handler>> requests;
    {
        // Under the lock, so that the test thread cannot close fd meanwhile.
        std::lock_guard<std::mutex> guard(m_mutex);
        const ssize_t got = fd == m_clientFd ? recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT) : -1;
        if (got <= 0) {
            return got < 0 && (fd != m_clientFd || errno == EINTR || errno == EAGAIN);
        }
        // Frames are recorded, and waiters woken, once per read: a backlog of small frames costs one pass.
        m_inbox.insert(m_inbox.end(), chunk, chunk + got);
        size_t used = 0;
        while (m_inbox.size() - used >= 4) {
            const auto length = static_cast<uint32_t>(readInt32(m_inbox, used));
            if (m_inbox.size() - used - 4 < length) {
                break;
            }
            Bytes request(m_inbox.begin() + static_cast<long>(used + 4),
                          m_inbox.begin() + static_cast<long>(used + 4 + length));
            used += 4 + length;
            const int32_t actionID = actionIdOf(request);
            ++m_receivedCounts[actionID];
            const auto found = m_handlers.find(actionID);
            requests.emplace_back(request, found != m_handlers.end() ? found->second : Handler());
            if (m_keepBodies) {
                m_received.push_back(std::move(request));
            }
        }
        m_inbox.erase(m_inbox.begin(), m_inbox.begin() + static_cast<long>(used));
        m_changed.notify_all();
    }
    for (const auto& [request, handler] : requests) {
        const std::vector<Bytes> replies = handler ? handler(request) : std::vector<Bytes>();
        std::lock_guard<std::mutex> guard(m_mutex);
        for (const Bytes& reply : replies) {
            const Bytes whole = frame(reply);
            writeAll(whole.data(), whole.size());
        }
    }
    return true;
}

}  // namespace pelktest
