// The link to the on-device service: one TCP connection to 127.0.0.1:20014 carrying frames (a
// 32-bit little-endian length, then one message whose first field is its action ID).
//
// SocketClient owns the socket and the receiver thread, which watches the socket and reads
// frames. TransferClient adds the framing, a response queue for answers to serviceCall(), an
// action callback queue for events the service pushes, and the action callback thread that hands
// each event to one callback, one at a time, in arrival order. A caller waiting in serviceCall()
// reads the socket itself until its reply has come (events it meets join the callback queue in
// order); the receiver keeps off the socket while a call is in flight and for a moment after. The
// rest of the time the callback thread, while idle with a callback set, watches the socket
// itself, so that an event reaches the callback with one wake-up; the receiver reads whenever
// the callback thread cannot (busy in a callback, no callback set, link lost). Both queues are
// bounded: past the bound the oldest frame goes.
//
// Every start makes a new run: its own socket, receiver thread, callback thread and queues, owned
// jointly by the client and the run's threads. A stop ends the run and drops its frames, so
// nothing of one connection reaches the next, and a new run never waits for an old one's threads.
//
// Threads: any number of callers of serviceCall() (one request in flight at a time) and, per run,
// the receiver thread and the action callback thread. Locks are taken in the order callback
// mutex, service mutex, socket mutex, queue mutex; a run's state mutex, the run mutex and the
// logger's mutex are innermost. The socket mutex is held by whoever reads: the receiver for one
// receive, or a caller from its send until its reply. Idle waits follow back-off tables (1 ms up
// to 50 ms) and end early when there is work; a stop shuts the socket down, which ends any wait
// or read on it at once. The destructor waits for every thread of every run, so no thread of
// ours outlives the object.
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
#include <cstddef>
#include <cstdint>

#include "FrameReader.h"

namespace PELK {
namespace Agent {

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

    // The receiver thread's steps, which it takes through these hooks for its own run: reading a
    // readable socket (false ends the receiver), the end of its loop while it was meant to run (a
    // lost link, before the stop), and its stop. Called from elsewhere they act on the current
    // run. A derived class that overrides them stops the receiver in its own destructor.
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
    // Takes the current run out and ends it: stopped, its receiver stopped, its socket closed.
    void retireRun();
    // True while no newer start has replaced the run (a stopped run stays the latest).
    bool isLatestRun(const LinkRun* run);
    // Clears one of the client's mirrors of the current run, if run is still the current one;
    // true when it was set.
    bool clearIfCurrent(const LinkRun* run, std::atomic<bool>& flag);
    bool stopReceiverOf(LinkRun* run);
    bool closeSocketOf(LinkRun* run);
    // One idle wait on the run's socket along the back-off, then a read if it became readable.
    // False when the link must be given up.
    bool watchOnce(LinkRun* run, size_t& backOff);
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

    // Bounds of a run's queues: events waiting for the callback, and replies nobody waits for.
    // Apps whose callbacks run slowly (through a VM, say) see bursts of tens of thousands of
    // events queue up and must lose none of them, so the event bound is wide; the byte bound is
    // what caps the memory.
    static constexpr unsigned int kMaxQueuedEvents = 1u << 18;
    static constexpr unsigned int kMaxUnclaimedReplies = 64;
    static constexpr size_t kMaxQueuedBytes = 2 * static_cast<size_t>(Frame::kMaxLength);

    TransferClient();
    virtual ~TransferClient();

    // Connects a new run and starts its threads; a run whose loss is known is stopped first.
    // False when already started or the service is not there.
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
    // True on the thread that is running a callback of this client.
    bool insideCallBack() const;

protected:
    bool receiveFrames(LinkRun* run) override;
    bool receiverEnded(LinkRun* run) override;
    bool reportLoss(LinkRun* run) override;

private:
    enum Delivery { kDelivered, kNothingQueued, kNoCallBack };

    static unsigned int thread_actionCallBack(void* arg);
    bool startCallBackThread(LinkRun* run);
    // Hands the run's next frame to the callback, if there is one and a callback to take it.
    Delivery deliverNext(LinkRun* run);
    void deliverEnd(LinkRun* run);
    bool currentRunLost();

    // The steps of serviceCall. REQUIRES for the last two: the socket mutex is held.
    void discardStaleReplies(LinkRun* run, int32_t requestID);
    int sendRequest(LinkRun* run, const char* buf, int len);
    int waitForResponse(LinkRun* run, int32_t requestID, char*& resp, int* resplen, int timeout);

    // Reading, by whichever thread holds the socket mutex. False when the link must be given up.
    bool readSocket(LinkRun* run, bool wait);
    bool takeFrames(LinkRun* run);
    bool dropStalledFrame(LinkRun* run);
    void route(LinkRun* run, char* frame);
    void markLost(LinkRun* run);

    std::atomic<bool> m_fTransferStarted;
    pthread_mutex_t m_mutexActionCallBackFunction;
    pthread_mutex_t m_mutexService;
    ActionCallBack m_fnActionReceived;  // guarded by m_mutexActionCallBackFunction
    void* m_pUserData;                  // guarded by m_mutexActionCallBackFunction
    std::atomic<long> m_nCallBackRunner;  // the thread inside a callback, 0 when none
};

// Narrows the queue bounds of the runs started from now on, so that tests can fill a queue
// quickly; zero puts a default back. Only tests call it.
void setQueueBoundsForTesting(unsigned int maxEvents, unsigned int maxReplies);

}  // namespace Agent
}  // namespace PELK

#endif  // PELK_AGENT_TRANSFERCLIENT_H
