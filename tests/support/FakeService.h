// A scriptable stand-in for the on-device service, for tests of the link and the agent.
// It listens on 127.0.0.1:20014, accepts one connection at a time (and a new one after a drop),
// reads whole frames, answers requests as each test scripts it, pushes events on demand, sends
// raw bytes, closes or resets the connection, and records every frame it received.
// All methods are safe to call from the test thread while the service thread runs.
// Beside it, the one builder of bodies (B) and the readers of their fields that every suite uses.
#ifndef PELK_TESTS_FAKESERVICE_H
#define PELK_TESTS_FAKESERVICE_H

#include <atomic>
#include <chrono>
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

// Builds bodies straight from the offset tables, little-endian, independently of the library's
// coders.
struct B {
    Bytes v;
    B& u8(int x) { return add({static_cast<uint8_t>(x)}); }
    B& i32(int64_t x) {
        const auto u = static_cast<uint32_t>(x);
        return add({static_cast<uint8_t>(u), static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u >> 16),
                    static_cast<uint8_t>(u >> 24)});
    }
    B& i64(uint64_t x) { return i32(static_cast<uint32_t>(x)).i32(static_cast<uint32_t>(x >> 32)); }
    // s in a field of n bytes, cut or padded with zeros.
    B& str(const std::string& s, size_t n) {
        for (size_t i = 0; i < n; ++i) v.push_back(i < s.size() ? s[i] : 0);
        return *this;
    }
    B& zeros(size_t n) { return add(Bytes(n, 0)); }
    B& add(const Bytes& more) {
        v.insert(v.end(), more.begin(), more.end());
        return *this;
    }
    operator const Bytes&() const { return v; }
    // Records: InteractionApp 304, DLNADevice 612, FileInfo 1844, NetworkCard 50, send tag 8 bytes.
    B& app(int k) {
        const std::string s = std::to_string(k);
        str("app" + s, 260).i32(100 + k).i32(200 + k);
        return str("10.0.0." + s, 16).str("aa:bb:cc:dd:ee:0" + s, 18).u8(1).u8(0);
    }
    B& dev(int k) {
        const std::string s = std::to_string(k);
        return str("dev" + s, 260).i32(k % 3).str("uuid-" + s, 100).str("10.1.0." + s, 16).u8(1).u8(k).zeros(230);
    }
    B& file(int k) {
        const std::string s = std::to_string(k);
        str("udn" + s, 100).str("parent" + s, 100).str("id" + s, 100);
        return str("title" + s, 260).str("type" + s, 260).str("http://h/" + s, 1024);
    }
    B& card(int k) { return str("eth" + std::to_string(k), 16).str("10.2.0." + std::to_string(k), 16).str("mac", 18); }
    B& tag(int k) { return u8(k).u8(k + 1).u8(3).u8(0).i32(1000 + k); }
    // The 308-byte head of the file events.
    B& fileHead(int32_t id) {
        i32(id).i32(9).i64(0x100000002ull).i64(0x300000004ull).i64(0x500000006ull);
        return i32(1).i32(2).i32(3).i32(4).str("report.pdf", 260);
    }
};

// A body of an action ID followed by 32-bit words, e.g. body(2, {0}) for a result-0 reply.
Bytes body(int32_t actionID, std::initializer_list<int32_t> words = {});
// The frame that carries a body: its length as a 32-bit little-endian word, then the body.
Bytes frame(const Bytes& body);
int32_t actionIdOf(const Bytes& body);
// Fields read back from a body; a field beyond its end fails the test and reads as zeros.
std::string readField(const Bytes& bytes, size_t offset, size_t size);
int32_t readInt32(const Bytes& bytes, size_t offset);
// A text field up to its terminator.
std::string readText(const Bytes& bytes, size_t offset, size_t size);

class FakeService {
public:
    static constexpr int kPort = 20014;

    // Decides the bodies that answer one request (given as its body, action ID first); none =
    // silence. It runs on the service's thread, which reads nothing more until it returns.
    using Handler = std::function<std::vector<Bytes>(const Bytes& request)>;

    FakeService();
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    // False when the port could not be bound.
    bool listening() const { return m_listenFd >= 0; }

    // Scripts the answers to every request with this action ID (replacing an earlier script).
    void on(int32_t actionID, Handler handler) { locked([&] { m_handlers[actionID] = std::move(handler); }); }
    // Shorthand: answer every such request with this body.
    void answer(int32_t actionID, const Bytes& replyBody) {
        on(actionID, [replyBody](const Bytes&) { return std::vector<Bytes>{replyBody}; });
    }

    // Sends one frame carrying body to the connected client. This and the following three wait
    // (up to 5 s) for a connection that the client has made but this side not yet accepted.
    bool push(const Bytes& body) { return sendRaw(frame(body)); }
    // Sends bytes as they are (fragments, bad length words).
    bool sendRaw(const Bytes& bytes);
    // Ends the current connection with an orderly close, or with a reset.
    void closeConnection(bool reset = false) {
        waitLocked(5000, [&] { return m_clientFd >= 0; });
        dropClient(reset);
    }
    // While stalled the service reads nothing, so the client's requests fill the socket buffers.
    void stallReading(bool stalled) { locked([&] { m_stalled = stalled; }); }

    // Waits until `count` connections have been accepted in all.
    bool waitForConnections(int count, int timeoutMs = 5000) {
        return waitLocked(timeoutMs, [&] { return m_connections >= count; });
    }
    // Waits until the client has closed the current connection (or none is open).
    bool waitForClientClose(int timeoutMs = 5000) {
        return waitLocked(timeoutMs, [&] { return m_clientFd < 0; });
    }
    // Bodies of the frames with this action ID received so far, oldest first. Without keeping
    // (a long run that only counts) no body is kept, so memory stays flat.
    void keepBodies(bool keep) { locked([&] { m_keepBodies = keep; }); }
    std::vector<Bytes> received(int32_t actionID) const;
    // Waits until at least `count` requests with this action ID have been received in all.
    bool waitForRequests(int32_t actionID, size_t count, int timeoutMs = 5000) {
        return waitLocked(timeoutMs, [&] { return m_receivedCounts[actionID] >= count; });
    }
    // Connections accepted so far.
    int connections() const { return locked([&] { return m_connections; }); }

private:
    void serve();
    bool readFromClient(int fd);
    template <class F>
    auto locked(F f) const -> decltype(f()) {
        std::lock_guard<std::mutex> guard(m_mutex);
        return f();
    }
    // Waits, up to timeoutMs, until done() holds under the lock.
    template <class Done>
    bool waitLocked(int timeoutMs, Done done) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
    }
    bool writeAll(const uint8_t* data, size_t size);
    void dropClient(bool reset);

    int m_listenFd = -1;
    int m_clientFd = -1;
    std::atomic<bool> m_stopping{false};
    bool m_stalled = false;
    int m_connections = 0;
    Bytes m_inbox;  // bytes read from the client and not yet framed
    std::vector<Bytes> m_received;
    bool m_keepBodies = true;
    std::map<int32_t, size_t> m_receivedCounts;  // by action ID, so that a wait over a backlog stays cheap
    std::map<int32_t, Handler> m_handlers;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::thread m_thread;
};

}  // namespace pelktest

#endif  // PELK_TESTS_FAKESERVICE_H
