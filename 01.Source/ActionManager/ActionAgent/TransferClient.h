// The link to the on-device service: one TCP connection to 127.0.0.1:20014 carrying frames (a
// 32-bit little-endian length, then one message whose first field is its action ID).
//
// SocketClient owns the socket and the receiver thread, which watches the socket and reads
// frames. TransferClient adds the framing, a response queue for answers to serviceCall(), an
// action callback queue for events the service pushes, and the action callback thread that hands
// each event to one callback, one at a time, in arrival order.
//
// Every start makes a new run: its own socket, receiver thread, callback thread and queues, owned
// jointly by the client and the run's threads. A stop ends the run and drops its frames, so
// nothing of one connection reaches the next, and a new run never waits for an old one's threads.
//
// Threads: any number of callers of serviceCall() (one request in flight at a time) and, per run,
// the receiver thread and the action callback thread. Locks are taken in the order callback
// mutex, service mutex, socket mutex, queue mutex; a run's state mutex, the run mutex and the
// logger's mutex are innermost. The destructor waits for every thread of every run, so no thread
// of ours outlives the object.
//
// Calls allowed from inside the action callback (it runs on the callback thread, holding the
// callback mutex):
// - serviceCall(): as from any thread.
// - setActionCallBack(): stores at once; the new callback gets the next frame, and a null one
//   means the callback gets no further frame.
// - stopTransfer(): stops the receiver and closes the socket, then returns without waiting for
//   the calling thread. That thread hands out no further frame of the stopped connection; once
//   the callback returns it gives the null frame, unless a newer start has replaced the run, and
//   ends.
// - startTransfer(): after such a stop, connects a new run with new threads at once.
// The destructor must not run on a callback thread.
#ifndef PELK_AGENT_TRANSFERCLIENT_H
#define PELK_AGENT_TRANSFERCLIENT_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace PELK {
namespace Agent {

// The frame, kept apart from socket I/O so that it can be checked with bytes alone. Frames are
// routed by IsEventActionID (ActionManager/Struct.h): events to the callback, the rest as replies.
namespace Frame {

// Bytes of the length word that starts every frame.
constexpr int MSG_LENGTH_OFFSET = 4;
// A frame is classified once its length word and action ID are available.
constexpr int kHeaderSize = MSG_LENGTH_OFFSET + static_cast<int>(sizeof(int32_t));
// Longer frames are reported, then accepted all the same.
constexpr uint32_t kLengthWarningLimit = 65855;

uint32_t lengthOf(const char* frame);
int32_t actionIdOf(const char* frame);
// A new frame (array new) holding the length word and a copy of message; null when out of memory.
char* build(const char* message, uint32_t length);

}  // namespace Frame

// One connection's state: its socket, its threads' progress and its queued frames.
struct LinkRun;

class SocketClient {
public:
    static const char* const kServiceAddress;  // "127.0.0.1"
    static constexpr int kServicePort = 20014;

    SocketClient();
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;

    // Opens a new IPv4 stream socket for a new run, closing an open one first.
    bool createSocket();
    // Blocking connect to the service.
    bool connectToServer();
    // Shuts the current run's connection down; its descriptor is released with the run.
    bool closeSocket();
    // Starts the current run's receiver thread.
    bool startReceiver();
    // Stops the current run's receiver thread; returns once it has closed the socket.
    bool stopReceiver();
    bool lockSocket();
    bool unlockSocket();

    long getSocket() const { return m_nSockID.load(); }
    bool isReceiverStarted() const { return m_fReceiverStarted.load(); }

    // The receiver thread's steps, for the current run: reading a readable socket (false ends
    // the receiver), its end, and the end of its loop while it was meant to run (a lost link).
    virtual bool onDataReceived();
    virtual bool onReceiverStopped();
    virtual bool onNetException();

protected:
    // Not virtual: the owner deletes the derived class (TransferClient declares the virtual one).
    ~SocketClient();

    // The same steps for a given run; the receiver thread of that run calls them.
    // REQUIRES for receiveFrames: the socket mutex is held.
    virtual bool receiveFrames(LinkRun* run);
    virtual bool receiverEnded(LinkRun* run);
    virtual bool reportLoss(LinkRun* run);

    // A counted reference to the current run, or null; give it back with LinkRun::release.
    LinkRun* acquireRun();
    // Takes the current run out of the client; the caller receives the client's reference.
    LinkRun* detachRun();
    // True while no newer start has replaced the run (a stopped run stays the latest).
    bool isLatestRun(const LinkRun* run);
    // Clears one of the client's mirrors of the current run, if run is still the current one;
    // true when it was set.
    bool clearIfCurrent(const LinkRun* run, std::atomic<bool>& flag);
    bool stopReceiverOf(LinkRun* run);
    bool closeSocketOf(LinkRun* run);
    // Every thread of every run is counted from its creation to its last touch of the client.
    void threadStarting();
    void threadEnded();
    void waitForThreads();

    std::atomic<long> m_nSockID;  // the current run's socket while it is open
    std::atomic<bool> m_fReceiverStarted;
    pthread_mutex_t m_clientSockMutex;

private:
    static unsigned int thread_dataReceiver(void* arg);

    pthread_mutex_t m_runMutex;  // guards m_pRun and m_nLatestRun
    LinkRun* m_pRun;
    uint64_t m_nLatestRun;
    pthread_mutex_t m_threadsMutex;
    pthread_cond_t m_threadsEnded;
    int m_nLiveThreads;  // guarded by m_threadsMutex
};

class TransferClient : public SocketClient {
public:
    // Receives every pushed frame (length word first); the frame is freed when it returns.
    // A null frame, delivered once as the callback thread's last act, means the link ended.
    typedef void (*ActionCallBack)(char* frame, void* userData);

    // Result codes of serviceCall.
    enum {
        kServiceOk = 0,
        kServiceOutOfMemory = 1101,
        kServiceBadCall = 1102,
        kServiceLockFailed = 1103,
        kServiceSocketLockFailed = 1104,
        kServiceSendFailed = 1105,
        kServiceTimeout = 1106,
        kServiceDisconnected = 1107,
    };

    TransferClient();
    virtual ~TransferClient();

    // Connects a new run and starts its threads. False when already started or the service is
    // not there.
    bool startTransfer();
    // Stops the run's threads and waits for them (for the callback thread only when not called
    // from a callback). Like the receiver, returns false when the socket was already closed by
    // the receiver thread.
    bool stopTransfer();
    // Blocks while a callback is running, unless called from inside one.
    void setActionCallBack(ActionCallBack fn, void* userData);

    // Sends one message (buf: action ID first, len bytes, no length word) and, when resplen is
    // given, waits up to timeout seconds for the response with the same action ID. On success
    // resp receives a new array (the caller deletes it with delete[]) holding *resplen bytes
    // from the action ID on; a buffer already in resp is freed first. resp and resplen both
    // null: a one-way request. Returns 0 or one of the codes above.
    int serviceCall(char* buf, int len, char*& resp, int* resplen, int timeout);

    bool lockService();
    bool unlockService();

    bool isTransferStarted() const { return m_fTransferStarted.load(); }

protected:
    bool receiveFrames(LinkRun* run) override;
    bool receiverEnded(LinkRun* run) override;
    bool reportLoss(LinkRun* run) override;

private:
    static unsigned int thread_actionCallBack(void* arg);
    bool startCallBackThread(LinkRun* run);
    // Hands the run's next frame to the callback; false when there was none to hand out.
    bool deliverNext(LinkRun* run);
    void deliverEnd(LinkRun* run);
    // True on the thread that is running a callback of this client.
    bool insideCallBack() const;
    int waitForResponse(LinkRun* run, int32_t requestID, char*& resp, int* resplen, int timeout);

    std::atomic<bool> m_fTransferStarted;
    pthread_mutex_t m_mutexActionCallBackFunction;
    pthread_mutex_t m_mutexService;
    ActionCallBack m_fnActionReceived;  // guarded by m_mutexActionCallBackFunction
    void* m_pUserData;                  // guarded by m_mutexActionCallBackFunction
    std::atomic<long> m_nCallBackRunner;  // the thread inside a callback, 0 when none
};

}  // namespace Agent
}  // namespace PELK

#endif  // PELK_AGENT_TRANSFERCLIENT_H
