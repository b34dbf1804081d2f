#include "support/FakeService.h"

#include <arpa/inet.h>
#include <fcntl.h>
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

namespace {

uint32_t readLittleEndian32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
}

// The action ID of a recorded frame (length word first); 0 for the null frame.
int32_t idOf(const Bytes& frame) {
    return frame.empty() ? 0 : static_cast<int32_t>(readLittleEndian32(frame.data() + 4));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Body building

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
    return messageBody.size() < 4 ? -1 : static_cast<int32_t>(readLittleEndian32(messageBody.data()));
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
    return static_cast<int32_t>(readLittleEndian32(reinterpret_cast<const uint8_t*>(field.data())));
}

std::string readText(const Bytes& bytes, size_t offset, size_t size) {
    const std::string field = readField(bytes, offset, size);
    return field.substr(0, strnlen(field.c_str(), size));
}

// ---------------------------------------------------------------------------------------------
// FrameRecorder

void FrameRecorder::onAction(char* frame, void* user) {
    FrameRecorder* self = static_cast<FrameRecorder*>(user);
    std::shared_ptr<std::function<void(char*)>> inside;
    {
        std::lock_guard<std::mutex> guard(self->m_mutex);
        inside = self->m_inside;
    }
    if (inside) {
        (*inside)(frame);
    }
    std::lock_guard<std::mutex> guard(self->m_mutex);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(frame);
    self->m_frames.push_back(frame == nullptr ? Bytes() : Bytes(bytes, bytes + 4 + readLittleEndian32(bytes)));
    self->m_changed.notify_all();
}

void FrameRecorder::setInside(std::function<void(char* frame)> inside) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_inside = std::make_shared<std::function<void(char*)>>(std::move(inside));
}

bool FrameRecorder::waitFor(int32_t actionID, size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return static_cast<size_t>(std::count_if(m_frames.begin(), m_frames.end(), [&](const Bytes& frame) {
                   return actionID < 0 || idOf(frame) == actionID;
               })) >= count;
    });
}

std::vector<Bytes> FrameRecorder::frames() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_frames;
}

std::vector<int32_t> FrameRecorder::ids() const {
    std::vector<int32_t> result;
    for (const Bytes& frame : frames()) result.push_back(idOf(frame));
    return result;
}

void FrameRecorder::clear() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_frames.clear();
    m_inside.reset();
}

// ---------------------------------------------------------------------------------------------
// FakeService

FakeService::FakeService() {
    if (pipe2(m_wakeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
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
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_stopping = true;
    }
    wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    dropClient(false);
    for (int fd : {m_listenFd, m_wakeFds[0], m_wakeFds[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void FakeService::on(int32_t actionID, Handler handler) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_handlers[actionID] = std::move(handler);
}

void FakeService::answer(int32_t actionID, const Bytes& replyBody, int delayMs) {
    on(actionID, [replyBody, delayMs](const Bytes&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        return std::vector<Bytes>{replyBody};
    });
}

bool FakeService::push(const Bytes& messageBody) {
    return sendRaw(frame(messageBody));
}

bool FakeService::sendRaw(const Bytes& bytes) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return awaitClient(lock) && writeAll(bytes.data(), bytes.size());
}

void FakeService::closeConnection(bool reset) {
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        awaitClient(lock);
    }
    dropClient(reset);
}

void FakeService::stallReading(bool stalled) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_stalled = stalled;
    wake();
}

// A client's connect can complete before this side has accepted it; wait for the accept.
bool FakeService::awaitClient(std::unique_lock<std::mutex>& lock) {
    return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_clientFd >= 0; });
}

template <class Done>
bool FakeService::waitLocked(int timeoutMs, Done done) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
}

bool FakeService::waitForConnections(int count, int timeoutMs) {
    return waitLocked(timeoutMs, [&] { return m_connections >= count; });
}

bool FakeService::waitForClientClose(int timeoutMs) {
    return waitLocked(timeoutMs, [&] { return m_clientFd < 0; });
}

void FakeService::keepBodies(bool keep) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_keepBodies = keep;
}

std::vector<Bytes> FakeService::received(int32_t actionID) const {
    std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<Bytes> matching;
    std::copy_if(m_received.begin(), m_received.end(), std::back_inserter(matching),
                 [&](const Bytes& request) { return actionIdOf(request) == actionID; });
    return matching;
}

bool FakeService::waitForRequests(int32_t actionID, size_t count, int timeoutMs) {
    return waitLocked(timeoutMs, [&] { return m_receivedCounts[actionID] >= count; });
}

int FakeService::connections() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_connections;
}

// REQUIRES: m_mutex held.
bool FakeService::writeAll(const uint8_t* data, size_t size) {
    size_t done = 0;
    while (done < size && m_clientFd >= 0) {
        ssize_t sent = send(m_clientFd, data + done, size - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
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
    wake();
}

// Makes the service thread poll again, with what changed.
void FakeService::wake() {
    if (m_wakeFds[1] >= 0) {
        (void)!write(m_wakeFds[1], "w", 1);
    }
}

void FakeService::serve() {
    for (;;) {
        int clientFd;
        bool stalled;
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            if (m_stopping) {
                return;
            }
            clientFd = m_clientFd;
            stalled = m_stalled;
        }
        struct pollfd fds[3] = {{m_listenFd, POLLIN, 0}, {m_wakeFds[0], POLLIN, 0}, {clientFd, POLLIN, 0}};
        const nfds_t count = clientFd >= 0 && !stalled ? 3 : 2;
        int ready = poll(fds, count, -1);
        if (ready < 0 && errno != EINTR) {
            return;
        }
        char drain[64];
        while (ready > 0 && (fds[1].revents & POLLIN) != 0 && read(m_wakeFds[0], drain, sizeof(drain)) > 0) {
        }
        if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
            acceptClient();
        }
        if (ready > 0 && count == 3 && (fds[2].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            std::unique_lock<std::mutex> lock(m_mutex);
            const bool sameClient = m_clientFd == clientFd;
            lock.unlock();
            if (sameClient && !readFromClient()) {
                dropClient(false);
            }
        }
    }
}

void FakeService::acceptClient() {
    int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    dropClient(false);  // a client that reconnects has given its old connection up
    // An event that follows a reply must not hold the next reply back until the client's
    // delayed acknowledgement.
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    std::lock_guard<std::mutex> guard(m_mutex);
    m_clientFd = fd;
    ++m_connections;
    m_changed.notify_all();
}

bool FakeService::readFromClient() {
    uint8_t chunk[65536];
    int fd;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        fd = m_clientFd;
    }
    ssize_t got = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return true;
    }
    if (got <= 0) {
        return false;
    }
    // Frames are recorded, and waiters woken, once per read: a backlog of small frames costs one pass.
    std::vector<std::pair<Bytes, Handler>> frames;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_inbox.insert(m_inbox.end(), chunk, chunk + got);
        size_t used = 0;
        while (m_inbox.size() - used >= 4) {
            const uint32_t length = readLittleEndian32(m_inbox.data() + used);
            if (m_inbox.size() - used < 4 + static_cast<size_t>(length)) {
                break;
            }
            Bytes frameBody(m_inbox.begin() + used + 4, m_inbox.begin() + used + 4 + length);
            used += 4 + length;
            const int32_t actionID = actionIdOf(frameBody);
            ++m_receivedCounts[actionID];
            auto found = m_handlers.find(actionID);
            frames.emplace_back(frameBody, found != m_handlers.end() ? found->second : Handler());
            if (m_keepBodies) {
                m_received.push_back(std::move(frameBody));
            }
        }
        m_inbox.erase(m_inbox.begin(), m_inbox.begin() + used);
        if (!frames.empty()) {
            m_changed.notify_all();
        }
    }
    for (const auto& [frameBody, handler] : frames) {
        const std::vector<Bytes> replies = handler ? handler(frameBody) : std::vector<Bytes>();
        std::lock_guard<std::mutex> guard(m_mutex);
        for (const Bytes& reply : replies) {
            const Bytes whole = frame(reply);
            writeAll(whole.data(), whole.size());
        }
    }
    return true;
}

}  // namespace pelktest
