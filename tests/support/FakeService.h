// A scriptable stand-in for the on-device service, for tests of the link and the agent.
// It listens on 127.0.0.1:20014, accepts one connection at a time (and a new one after a drop),
// reads whole frames, answers requests as each test scripts it, pushes events on demand, sends
// raw bytes, closes or resets the connection, and records every frame it received.
// All methods are safe to call from the test thread while the service thread runs.
#ifndef PELK_TESTS_FAKESERVICE_H
#define PELK_TESTS_FAKESERVICE_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelktest {

using Bytes = std::vector<uint8_t>;

// Little-endian body building for tests, written independently of the library's coders.
class BodyBuilder {
public:
    explicit BodyBuilder(int32_t actionID) { i32(actionID); }
    BodyBuilder& i32(int32_t value);
    BodyBuilder& zeros(size_t count);
    const Bytes& build() const { return m_bytes; }
    operator const Bytes&() const { return m_bytes; }

private:
    Bytes m_bytes;
};

// A body of an action ID followed by 32-bit words, e.g. body(2, {0}) for a result-0 reply.
Bytes body(int32_t actionID, std::initializer_list<int32_t> words = {});
// The frame that carries a body: its length as a 32-bit little-endian word, then the body.
Bytes frame(const Bytes& body);
int32_t actionIdOf(const Bytes& body);

class FakeService {
public:
    static constexpr int kPort = 20014;

    // One scripted answer: the body to send back, after delayMs milliseconds.
    struct Reply {
        Bytes body;
        int delayMs = 0;
    };
    // Decides the answers to one request (given as its body, action ID first); none = silence.
    using Handler = std::function<std::vector<Reply>(const Bytes& request)>;

    FakeService();
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    // False when the port could not be bound.
    bool listening() const { return m_listenFd >= 0; }

    // Scripts the answers to every request with this action ID (replacing an earlier script).
    void on(int32_t actionID, Handler handler);
    // Shorthand: answer every such request with this body, optionally late.
    void answer(int32_t actionID, const Bytes& replyBody, int delayMs = 0);

    // Sends one frame carrying body to the connected client. This and the following three wait
    // (up to 5 s) for a connection that the client has made but this side not yet accepted.
    bool push(const Bytes& body);
    // Sends bytes as they are (fragments, bad length words).
    bool sendRaw(const Bytes& bytes);
    // Ends the current connection with an orderly close, or with a reset.
    void closeConnection();
    void resetConnection();

    // Waits until `count` connections have been accepted in all.
    bool waitForConnections(int count, int timeoutMs = 5000);
    // Waits until at least `count` frames have been received in all.
    bool waitForFrames(size_t count, int timeoutMs = 5000);
    // Waits until the client has closed the current connection (or none is open).
    bool waitForClientClose(int timeoutMs = 5000);
    // Bodies of the frames received so far, oldest first; or only those with this action ID.
    std::vector<Bytes> received() const;
    std::vector<Bytes> received(int32_t actionID) const;
    // Waits until at least `count` requests with this action ID have been received in all.
    bool waitForRequests(int32_t actionID, size_t count, int timeoutMs = 5000);
    // Connections accepted so far.
    int connections() const;

private:
    struct Pending {
        int64_t dueMs;
        Bytes bytes;
    };

    size_t countReceived(int32_t actionID) const;  // REQUIRES: m_mutex held
    void serve();
    void acceptClient();
    bool readFromClient();
    void handleFrame(const Bytes& frameBody);
    void flushDue();
    bool writeAll(const uint8_t* data, size_t size);
    void dropClient(bool reset);
    bool awaitClient(std::unique_lock<std::mutex>& lock);
    int waitTimeoutMs() const;

    int m_listenFd = -1;
    int m_wakeFds[2] = {-1, -1};
    int m_clientFd = -1;  // guarded by m_mutex for writes from the test thread
    bool m_stopping = false;
    int m_connections = 0;
    Bytes m_inbox;  // bytes read from the client and not yet framed
    std::vector<Bytes> m_received;
    std::map<int32_t, Handler> m_handlers;
    std::vector<Pending> m_pending;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::thread m_thread;
};

}  // namespace pelktest

#endif  // PELK_TESTS_FAKESERVICE_H
