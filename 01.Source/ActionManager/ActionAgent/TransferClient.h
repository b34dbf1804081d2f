// The link to the on-device service: one TCP connection to 127.0.0.1:20014 carrying frames (a
// 32-bit little-endian length, then one message whose first field is its action ID).
//
// SocketClient owns the socket and the receiver thread, which watches the socket and calls
// onDataReceived() whenever it is readable. TransferClient adds the framing, a response queue
// for answers to serviceCall(), an action callback queue for events the service pushes, and the
// action callback thread that hands each event to one callback, in arrival order.
//
// Idle threads back off along fixed tables of waits (1 ms up to 50 ms), and those waits end early
// as soon as there is work, so an idle link still answers at once.
//
// Threads: any number of callers of serviceCall() (one request in flight at a time), the
// receiver thread and the action callback thread. Locks are taken in the order service mutex,
// socket mutex, queue mutex; the logger's mutex is innermost. Each thread holds a lifetime mutex
// for its whole run; stopping, restarting and destroying wait on those, so no thread of ours
// outlives the object.
#ifndef PELK_AGENT_TRANSFERCLIENT_H
#define PELK_AGENT_TRANSFERCLIENT_H

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>

#include "CommonLib/Queue.h"

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

class SocketClient {
public:
    static const char* const kServiceAddress;  // "127.0.0.1"
    static constexpr int kServicePort = 20014;

    SocketClient();
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;

    // Opens a new IPv4 stream socket, closing an open one first.
    bool createSocket();
    // Blocking connect to the service.
    bool connectToServer();
    bool closeSocket();
    // Starts the receiver thread; returns once the thread is running.
    bool startReceiver();
    // Stops the receiver thread; returns once it has left its loop and closed the socket.
    bool stopReceiver();
    bool lockSocket();
    bool unlockSocket();

    long getSocket() const { return m_nSockID.load(); }
    bool isReceiverStarted() const { return m_fReceiverStarted.load(); }

    // Called by the receiver thread: when the socket is readable (false ends the receiver), when
    // it stops, and when its loop ends although it was meant to run (the connection was lost).
    virtual bool onDataReceived();
    virtual bool onReceiverStopped();
    virtual bool onNetException();

protected:
    // Not virtual: the owner deletes the derived class (TransferClient declares the virtual one).
    ~SocketClient();
    // Blocks until a receiver thread of an earlier run has fully left.
    void waitForReceiverExit();

    std::atomic<long> m_nSockID;
    std::atomic<bool> m_fReceiverStarted;
    pthread_mutex_t m_clientSockMutex;

private:
    static unsigned int thread_dataReceiver(void* arg);

    pthread_mutex_t m_receiverThreadMutex;
    sem_t m_receiverStarting;  // posted by a new receiver thread once it holds its lifetime mutex
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

    // Connects and starts both threads. False when already started or the service is not there.
    bool startTransfer();
    // Stops both threads and waits for them. Like the receiver, returns false when the socket
    // was already closed by the receiver thread.
    bool stopTransfer();
    // Blocks while a callback is running.
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

    bool onDataReceived() override;
    bool onReceiverStopped() override;
    bool onNetException() override;

private:
    static unsigned int thread_actionCallBack(void* arg);
    // Queues a frame and wakes the thread that consumes the queue.
    void pushTo(Common::Queue<char*>& queue, char* frame, long consumerEvent);
    // Wakes the callback thread and a waiting serviceCall, so they see a flag change at once.
    void wakeWaiters();
    void freeQueued(Common::Queue<char*>& queue);
    void waitForCallBackThreadExit();

    std::atomic<bool> m_fTransferStarted;
    pthread_mutex_t m_actionCallBackThreadMutex;
    pthread_mutex_t m_mutexActionCallBackFunction;
    pthread_mutex_t m_mutexService;
    Common::Queue<char*> m_actionCallBackQueue;
    Common::Queue<char*> m_responseQueue;
    ActionCallBack m_fnActionReceived;
    void* m_pUserData;
    sem_t m_callBackThreadStarting;  // posted by a new callback thread once it holds its mutex
    // Idle waits follow the back-off tables but end early when there is work: a frame queued,
    // a callback set, the link stopped or lost.
    long m_nActionEvent;
    long m_nResponseEvent;
};

}  // namespace Agent
}  // namespace PELK

#endif  // PELK_AGENT_TRANSFERCLIENT_H
