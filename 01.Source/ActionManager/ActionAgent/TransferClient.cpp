#include "TransferClient.h"

#include <errno.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "ActionManager/Struct.h"
#include "ActionManager/WireFormat.h"
#include "CommonLib/OSAL.h"
#include "CommonLib/Queue.h"
#include "CommonLib/ZTLogger.h"

namespace PELK {
namespace Agent {

using Common::MutexGuard;
using Common::OSAbstractLayer;

namespace {

// Idle polls back off along this table and return to its start after every piece of work.
const int kBackOffMs[] = {1, 2, 3, 5, 8, 13, 21, 34, 50};
const size_t kLastBackOff = sizeof(kBackOffMs) / sizeof(kBackOffMs[0]) - 1;
// A caller waiting for its reply checks its time-out and the link at least this often.
const int kResponsePollCapMs = 10;
// After a caller's last read the receiver keeps off the socket this long, so that calls made in
// a row, each reading its own reply, do not wake it.
const int kHandBackMs = 2;

const int kQueueCapacity = 64;
const int kSendTimeoutSeconds = 5;
// A frame that has stopped arriving for this long is dropped.
const int kFrameReadTimeoutSeconds = 20;
const int kNetExceptionPollMs = 50;
const int kNetExceptionSettleMs = 1000;
const int kNetExceptionTailMs = 200;

// The idle wait at this step of the back-off; the index then moves on, up to the table's end.
int nextBackOff(size_t& index) {
    const int ms = kBackOffMs[index];
    if (index < kLastBackOff) {
        ++index;
    }
    return ms;
}

void putLittleEndian32(char* at, uint32_t value) {
    Wire::EncodeFixed32(reinterpret_cast<unsigned char*>(at), value);
}

uint32_t getLittleEndian32(const char* at) {
    return Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(at));
}

size_t frameSize(const char* frame) {
    return static_cast<size_t>(getLittleEndian32(frame)) + Frame::MSG_LENGTH_OFFSET;
}

std::atomic<unsigned int> g_maxQueuedEvents{TransferClient::kMaxQueuedEvents};
std::atomic<unsigned int> g_maxUnclaimedReplies{TransferClient::kMaxUnclaimedReplies};

// A queue of frames with bounds: past them the oldest frame is dropped with a log line, so that a
// flooding peer or a callback that is never set cannot make it grow without end.
class FrameQueue {
public:
    FrameQueue(const char* what, unsigned int maxFrames, size_t maxBytes)
        : m_queue(kQueueCapacity), m_szWhat(what), m_nMaxFrames(maxFrames), m_nMaxBytes(maxBytes), m_nBytes(0),
          m_nDropped(0) {}
    ~FrameQueue() { clear(); }
    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    // Takes the frame over; the newest frame is always kept.
    void push(char* frame) {
        const size_t size = frameSize(frame);
        Common::Queue<char*>::Locked held(m_queue);
        char* oldest = nullptr;
        while ((m_queue.size() >= m_nMaxFrames || m_nBytes + size > m_nMaxBytes) && m_queue.top_unlock(&oldest)) {
            m_nBytes -= frameSize(oldest);
            ZT_LOG(Common::ZT_LOG_WARNING, "%s queue full: dropped the oldest, action:%d (%u dropped)", m_szWhat,
                   Frame::actionIdOf(oldest), ++m_nDropped);
            delete[] oldest;
        }
        if (m_queue.push_unlock(frame)) {
            m_nBytes += size;
        } else {
            delete[] frame;
        }
    }

    bool pop(char** frame) {
        Common::Queue<char*>::Locked held(m_queue);
        const bool taken = m_queue.top_unlock(frame);
        if (taken) {
            m_nBytes -= frameSize(*frame);
        }
        return taken;
    }

    bool empty() const { return m_queue.empty(); }

    // Frees every frame held; returns how many.
    unsigned int clear() {
        unsigned int freed = 0;
        for (char* frame = nullptr; pop(&frame); ++freed) {
            delete[] frame;
        }
        return freed;
    }

private:
    Common::Queue<char*> m_queue;
    const char* const m_szWhat;
    const unsigned int m_nMaxFrames;
    const size_t m_nMaxBytes;
    size_t m_nBytes;          // guarded by the queue's mutex
    unsigned int m_nDropped;  // guarded by the queue's mutex
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// LinkRun

// Shared by the client and the run's threads; the last reference given back frees it, with its
// socket and every frame it still holds. Nothing here touches the client, so a run may outlive it.
struct LinkRun {
    LinkRun(SocketClient* owner, long sock);
    ~LinkRun();
    LinkRun(const LinkRun&) = delete;
    LinkRun& operator=(const LinkRun&) = delete;

    void retain() { m_nRefs.fetch_add(1, std::memory_order_relaxed); }
    static void release(LinkRun* run);

    // Ends the run's delivery: nothing more is handed out, and every wait of the run returns.
    void stop();
    // Wakes whoever waits on the run: a stop, a loss, a reply, a thread's end.
    void broadcast();
    // Waits up to ms for broadcast().
    void waitForChange(int ms);
    // Waits ms unless the run is stopped first.
    void sleepUnlessStopped(int ms);
    // The callback thread sleeps until there may be a frame to hand out, or up to ms.
    void signalWork();
    void waitForWork(int ms);
    // Each of the run's threads says when it is done with the run's socket and queues.
    void setThreadDone(bool LinkRun::*flag, bool done);
    void waitForThreadDone(bool LinkRun::*flag);
    // How long the receiver should keep off the socket now: 0 unless a caller reads or just did.
    int receiverPauseMs() const;
    // True once an unfinished frame has had no new byte for the frame read time-out.
    bool frameStalled() const;
    // Frees the frames still queued, saying how many there were.
    void dropQueued();

    SocketClient* const m_pOwner;
    const long m_nSock;
    uint64_t m_nGeneration;  // set once, under the client's run mutex, before any thread starts
    std::atomic<int> m_nRefs;
    std::atomic<bool> m_fSocketOpen;  // until closeSocket shuts the connection down
    std::atomic<bool> m_fReceiving;   // the receiver thread is meant to run
    std::atomic<bool> m_fActive;      // frames are handed out: until a stop or the receiver's end
    std::atomic<bool> m_fStopped;     // stopped on purpose, not lost
    std::atomic<bool> m_fLost;        // the connection failed: calls fail with 1107 from now on
    std::atomic<bool> m_fConnected;   // the connection is made: calls keep off the socket until then
    std::atomic<int> m_nReading;      // calls in flight, each reading its own reply
    std::atomic<bool> m_fCallBackWatching;  // the idle callback thread reads the socket itself
    std::atomic<int64_t> m_nLastCallMs;
    std::atomic<int64_t> m_nPartialSinceMs;  // the last byte of an unfinished frame; 0 when none
    Frame::Reader m_reader;                   // guarded by the client's socket mutex
    FrameQueue m_events;
    FrameQueue m_replies;

    pthread_mutex_t m_stateMutex;
    pthread_cond_t m_changed;
    pthread_cond_t m_workArrived;
    bool m_fWorkPending;       // guarded by m_stateMutex, as are the three below
    bool m_fCallBackWaiting;
    bool m_fReceiverDone;
    bool m_fCallBackDone;
};

LinkRun::LinkRun(SocketClient* owner, long sock)
    : m_pOwner(owner),
      m_nSock(sock),
      m_nGeneration(0),
      m_nRefs(1),
      m_fSocketOpen(true),
      m_fReceiving(false),
      m_fActive(true),
      m_fStopped(false),
      m_fLost(false),
      m_fConnected(false),
      m_nReading(0),
      m_fCallBackWatching(false),
      m_nLastCallMs(0),
      m_nPartialSinceMs(0),
      m_events("Event", g_maxQueuedEvents.load(), TransferClient::kMaxQueuedBytes),
      m_replies("Reply", g_maxUnclaimedReplies.load(), TransferClient::kMaxQueuedBytes),
      m_fWorkPending(false),
      m_fCallBackWaiting(false),
      m_fReceiverDone(true),
      m_fCallBackDone(true) {
    OSAbstractLayer::osal_init_mutex(&m_stateMutex);
    OSAbstractLayer::osal_init_condition(&m_changed);
    OSAbstractLayer::osal_init_condition(&m_workArrived);
}

LinkRun::~LinkRun() {
    dropQueued();
    OSAbstractLayer::osal_close_socket(m_nSock);
    OSAbstractLayer::osal_destroy_condition(&m_workArrived);
    OSAbstractLayer::osal_destroy_condition(&m_changed);
    OSAbstractLayer::osal_destroy_mutex(&m_stateMutex);
}

void LinkRun::release(LinkRun* run) {
    if (run != nullptr && run->m_nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete run;
    }
}

void LinkRun::stop() {
    m_fStopped = true;
    m_fActive = false;
    broadcast();
    signalWork();
}

void LinkRun::broadcast() {
    MutexGuard guard(&m_stateMutex);
    OSAbstractLayer::osal_broadcast_condition(&m_changed);
}

void LinkRun::waitForChange(int ms) {
    MutexGuard guard(&m_stateMutex);
    OSAbstractLayer::osal_wait_condition(&m_changed, &m_stateMutex, ms);
}

void LinkRun::sleepUnlessStopped(int ms) {
    const int64_t end = OSAbstractLayer::osal_monotonic_ms() + ms;
    for (int64_t now = OSAbstractLayer::osal_monotonic_ms(); now < end && !m_fStopped;
         now = OSAbstractLayer::osal_monotonic_ms()) {
        waitForChange(static_cast<int>(end - now));
    }
}

void LinkRun::signalWork() {
    bool waiting = false;
    {
        MutexGuard guard(&m_stateMutex);
        m_fWorkPending = true;
        waiting = m_fCallBackWaiting;
    }
    // After the unlock, so that the woken thread does not at once wait for this one's mutex.
    if (waiting) {
        OSAbstractLayer::osal_signal_condition(&m_workArrived);
    }
}

void LinkRun::waitForWork(int ms) {
    MutexGuard guard(&m_stateMutex);
    if (!m_fWorkPending && m_fActive) {
        m_fCallBackWaiting = true;
        OSAbstractLayer::osal_wait_condition(&m_workArrived, &m_stateMutex, ms);
        m_fCallBackWaiting = false;
    }
    m_fWorkPending = false;
}

void LinkRun::setThreadDone(bool LinkRun::*flag, bool done) {
    MutexGuard guard(&m_stateMutex);
    this->*flag = done;
    OSAbstractLayer::osal_broadcast_condition(&m_changed);
}

void LinkRun::waitForThreadDone(bool LinkRun::*flag) {
    MutexGuard guard(&m_stateMutex);
    while (!(this->*flag)) {
        OSAbstractLayer::osal_wait_condition(&m_changed, &m_stateMutex, -1);
    }
}

int LinkRun::receiverPauseMs() const {
    if (m_nReading > 0) {
        return kResponsePollCapMs;
    }
    const int64_t since = OSAbstractLayer::osal_monotonic_ms() - m_nLastCallMs;
    return since < kHandBackMs ? static_cast<int>(kHandBackMs - since) : 0;
}

bool LinkRun::frameStalled() const {
    const int64_t since = m_nPartialSinceMs;
    return since != 0 && OSAbstractLayer::osal_monotonic_ms() - since >= kFrameReadTimeoutSeconds * 1000;
}

void LinkRun::dropQueued() {
    const unsigned int dropped = m_events.clear() + m_replies.clear();
    if (dropped > 0) {
        ZT_LOG(Common::ZT_LOG_INFO, "Dropped %u frames of the closed connection %d", dropped,
               static_cast<int>(m_nSock));
    }
}

namespace {

// A counted reference to a run for one scope.
class RunRef {
public:
    explicit RunRef(LinkRun* run) : m_pRun(run) {}
    ~RunRef() { LinkRun::release(m_pRun); }
    RunRef(const RunRef&) = delete;
    RunRef& operator=(const RunRef&) = delete;
    LinkRun* get() const { return m_pRun; }
    LinkRun* operator->() const { return m_pRun; }

private:
    LinkRun* m_pRun;
};

// Holds one of the client's logged locks for a scope.
template <class Client>
class ClientLock {
public:
    ClientLock(Client* client, bool (Client::*lock)(), bool (Client::*unlock)())
        : m_pClient(client), m_unlock(unlock), m_fHeld((client->*lock)()) {}
    ~ClientLock() {
        if (m_fHeld) {
            (m_pClient->*m_unlock)();
        }
    }
    ClientLock(const ClientLock&) = delete;
    ClientLock& operator=(const ClientLock&) = delete;

    bool held() const { return m_fHeld; }
    // For the one path that leaves the lock held on purpose.
    void keepLocked() { m_fHeld = false; }

private:
    Client* m_pClient;
    bool (Client::*m_unlock)();
    bool m_fHeld;
};

// Marks a call as its run's reader from before its send to its end.
class ReadingCall {
public:
    explicit ReadingCall(LinkRun* run) : m_pRun(run) {
        if (m_pRun != nullptr) {
            m_pRun->m_nReading.fetch_add(1);
        }
    }
    ~ReadingCall() {
        if (m_pRun != nullptr) {
            m_pRun->m_nLastCallMs = OSAbstractLayer::osal_monotonic_ms();
            m_pRun->m_nReading.fetch_sub(1);
        }
    }
    ReadingCall(const ReadingCall&) = delete;
    ReadingCall& operator=(const ReadingCall&) = delete;

private:
    LinkRun* m_pRun;
};

// Starts fn(run) on a new thread that holds its own reference to the run.
bool startRunThread(unsigned int (*fn)(void*), LinkRun* run) {
    run->retain();
    long thread = 0;
    if (OSAbstractLayer::osal_create_thread(&thread, fn, run) != 0) {
        LinkRun::release(run);
        return false;
    }
    return true;
}

}  // namespace

void setQueueBoundsForTesting(unsigned int maxEvents, unsigned int maxReplies) {
    g_maxQueuedEvents = maxEvents != 0 ? maxEvents : TransferClient::kMaxQueuedEvents;
    g_maxUnclaimedReplies = maxReplies != 0 ? maxReplies : TransferClient::kMaxUnclaimedReplies;
}

// ---------------------------------------------------------------------------------------------
// SocketClient

const char* const SocketClient::kServiceAddress = "127.0.0.1";

SocketClient::SocketClient()
    : m_nSockID(OSAL_INVALID_SOCKET), m_fReceiverStarted(false), m_pRun(nullptr), m_nLatestRun(0),
      m_nLiveThreads(0) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "osal_init_network() called.");
    OSAbstractLayer::osal_init_mutex(&m_clientSockMutex);
    OSAbstractLayer::osal_init_mutex(&m_runMutex);
    OSAbstractLayer::osal_init_mutex(&m_threadsMutex);
    OSAbstractLayer::osal_init_condition(&m_threadsEnded);
}

SocketClient::~SocketClient() {
    retireRun();
    waitForThreads();
    OSAbstractLayer::osal_destroy_condition(&m_threadsEnded);
    OSAbstractLayer::osal_destroy_mutex(&m_threadsMutex);
    OSAbstractLayer::osal_destroy_mutex(&m_runMutex);
    OSAbstractLayer::osal_destroy_mutex(&m_clientSockMutex);
    ZT_LOG(Common::ZT_LOG_DEBUG, "osal_destroy_network called.");
}

void SocketClient::retireRun() {
    LinkRun* run = detachRun();
    if (run == nullptr) {
        return;
    }
    run->stop();
    if (run->m_fReceiving) {
        stopReceiverOf(run);
    }
    if (run->m_fSocketOpen) {
        closeSocketOf(run);
    }
    LinkRun::release(run);
}

bool SocketClient::createSocket() {
    if (m_nSockID != OSAL_INVALID_SOCKET) {
        ZT_LOG(Common::ZT_LOG_WARNING, "m_nSockID != OSAL_INVALID_SOCKET");
        closeSocket();
    }
    long sock = OSAbstractLayer::osal_create_tcp_socket();
    if (sock == OSAL_INVALID_SOCKET) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Failed to retrive socket.");
        return false;
    }
    LinkRun* run = new (std::nothrow) LinkRun(this, sock);
    if (run == nullptr) {
        OSAbstractLayer::osal_close_socket(sock);
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return false;
    }
    LinkRun* replaced = nullptr;
    {
        MutexGuard guard(&m_runMutex);
        replaced = m_pRun;
        m_pRun = run;
        run->m_nGeneration = ++m_nLatestRun;
        m_nSockID = sock;
        m_fReceiverStarted = false;
    }
    LinkRun::release(replaced);
    ZT_LOG(Common::ZT_LOG_DEBUG, "socket:%d created", static_cast<int>(sock));
    return true;
}

bool SocketClient::connectToServer() {
    RunRef run(acquireRun());
    if (run.get() == nullptr || !run->m_fSocketOpen) {
        ZT_LOG(Common::ZT_LOG_WARNING, "socket is closed.");
        return false;
    }
    if (OSAbstractLayer::osal_connect(run->m_nSock, kServiceAddress, kServicePort) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Failed to connect to port :[%d], error=%d\n", kServicePort, errno);
        return false;
    }
    // A caller blocked reading its reply looks at its time-out and the link this often.
    OSAbstractLayer::osal_set_receive_timeout(run->m_nSock, kResponsePollCapMs);
    run->m_fConnected = true;
    ZT_LOG(Common::ZT_LOG_INFO, "Socket Client is connectted to server.");
    return true;
}

bool SocketClient::closeSocket() {
    RunRef run(acquireRun());
    return closeSocketOf(run.get());
}

bool SocketClient::closeSocketOf(LinkRun* run) {
    if (run == nullptr || !run->m_fSocketOpen.exchange(false)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "SocketClient is already closed.");
        return false;
    }
    OSAbstractLayer::osal_shutdown_socket(run->m_nSock);
    {
        MutexGuard guard(&m_runMutex);
        if (m_pRun == run) {
            m_nSockID = OSAL_INVALID_SOCKET;
        }
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "socket %d closed", static_cast<int>(run->m_nSock));
    return true;
}

bool SocketClient::startReceiver() {
    if (m_fReceiverStarted) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Receiver is already started.");
        return false;
    }
    RunRef run(acquireRun());
    if (run.get() == nullptr || !run->m_fSocketOpen) {
        ZT_LOG(Common::ZT_LOG_WARNING, "socket is closed.");
        return false;
    }
    m_fReceiverStarted = true;
    run->m_fReceiving = true;
    run->setThreadDone(&LinkRun::m_fReceiverDone, false);
    threadStarting();
    if (!startRunThread(thread_dataReceiver, run.get())) {
        threadEnded();
        run->setThreadDone(&LinkRun::m_fReceiverDone, true);
        run->m_fReceiving = false;
        m_fReceiverStarted = false;
        ZT_LOG(Common::ZT_LOG_ERROR, "Fail to create thread!");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "Client receiver is started.");
    return true;
}

bool SocketClient::stopReceiver() {
    RunRef run(acquireRun());
    return stopReceiverOf(run.get());
}

bool SocketClient::stopReceiverOf(LinkRun* run) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "stopping socket client receiver...");
    if (run == nullptr || !run->m_fReceiving.exchange(false)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Receiver is already stoppted.");
        return false;
    }
    {
        MutexGuard guard(&m_runMutex);
        if (m_pRun == run) {
            m_fReceiverStarted = false;
        }
    }
    // Interrupts a wait or a read in progress; the receiver closes the socket as it ends.
    OSAbstractLayer::osal_shutdown_socket(run->m_nSock);
    run->broadcast();
    ZT_LOG(Common::ZT_LOG_DEBUG, "waiting for receiver thread...");
    run->waitForThreadDone(&LinkRun::m_fReceiverDone);
    ZT_LOG(Common::ZT_LOG_DEBUG, "SocketClient stopped.");
    return true;
}

bool SocketClient::lockSocket() {
    if (OSAbstractLayer::osal_lock_mutex(&m_clientSockMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot lock mutex m_clientSockMutex!");
        return false;
    }
    return true;
}

bool SocketClient::unlockSocket() {
    if (OSAbstractLayer::osal_unlock_mutex(&m_clientSockMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot unlock mutex m_clientSockMutex!");
        return false;
    }
    return true;
}

namespace {

// The run whose receiver thread this is, while that thread calls the hooks: a newer run may have
// replaced the client's current one meanwhile, and the hooks must act on the thread's own.
thread_local LinkRun* t_receiverRun = nullptr;

}  // namespace

bool SocketClient::onDataReceived() {
    if (t_receiverRun != nullptr) {
        return receiveFrames(t_receiverRun);  // the receiver thread holds the socket mutex
    }
    RunRef run(acquireRun());
    if (run.get() == nullptr) {
        return false;
    }
    ClientLock<SocketClient> socket(this, &SocketClient::lockSocket, &SocketClient::unlockSocket);
    return socket.held() && receiveFrames(run.get());
}

bool SocketClient::onReceiverStopped() {
    if (t_receiverRun != nullptr) {
        return receiverEnded(t_receiverRun);
    }
    RunRef run(acquireRun());
    return run.get() != nullptr && receiverEnded(run.get());
}

bool SocketClient::onNetException() {
    if (t_receiverRun != nullptr) {
        return reportLoss(t_receiverRun);
    }
    RunRef run(acquireRun());
    return run.get() != nullptr && reportLoss(run.get());
}

bool SocketClient::receiveFrames(LinkRun*) {
    return false;
}

bool SocketClient::receiverEnded(LinkRun*) {
    return false;
}

bool SocketClient::reportLoss(LinkRun*) {
    return false;
}

LinkRun* SocketClient::acquireRun() {
    MutexGuard guard(&m_runMutex);
    if (m_pRun != nullptr) {
        m_pRun->retain();
    }
    return m_pRun;
}

LinkRun* SocketClient::detachRun() {
    MutexGuard guard(&m_runMutex);
    LinkRun* run = m_pRun;
    m_pRun = nullptr;
    m_nSockID = OSAL_INVALID_SOCKET;
    m_fReceiverStarted = false;
    return run;
}

bool SocketClient::isLatestRun(const LinkRun* run) {
    MutexGuard guard(&m_runMutex);
    return run->m_nGeneration == m_nLatestRun;
}

bool SocketClient::clearIfCurrent(const LinkRun* run, std::atomic<bool>& flag) {
    MutexGuard guard(&m_runMutex);
    return m_pRun == run && flag.exchange(false);
}

void SocketClient::threadStarting() {
    MutexGuard guard(&m_threadsMutex);
    ++m_nLiveThreads;
}

void SocketClient::threadEnded() {
    MutexGuard guard(&m_threadsMutex);
    --m_nLiveThreads;
    OSAbstractLayer::osal_broadcast_condition(&m_threadsEnded);
}

void SocketClient::waitForThreads() {
    MutexGuard guard(&m_threadsMutex);
    while (m_nLiveThreads > 0) {
        OSAbstractLayer::osal_wait_condition(&m_threadsEnded, &m_threadsMutex, -1);
    }
}

bool SocketClient::watchOnce(LinkRun* run, size_t& backOff) {
    // Waits as long as the back-off says, but wakes as soon as data arrives.
    const int ready = OSAbstractLayer::osal_socketReadable(run->m_nSock, 0, nextBackOff(backOff) * 1000);
    if (ready < 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "select fail! socket=%d, error=%d", static_cast<int>(run->m_nSock), errno);
        return false;
    }
    if (ready == 0 && !run->frameStalled()) {
        return true;
    }
    bool keepGoing = true;
    {
        MutexGuard socket(&m_clientSockMutex, MutexGuard::TryOnly());
        if (!socket.owns()) {
            run->waitForChange(1);  // a call has the socket; the pause for callers follows
            return true;
        }
        ZT_LOG(Common::ZT_LOG_DEBUG, "before onDataReceived");
        // The receiver thread reads through the hook a derived class may override; the callback
        // thread, which reads only while it waits for events, reads its run directly.
        keepGoing = t_receiverRun == run ? onDataReceived() : receiveFrames(run);
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "after onDataReceived");
    if (ready > 0) {
        backOff = 0;
    }
    return keepGoing;
}

unsigned int SocketClient::thread_dataReceiver(void* arg) {
    LinkRun* run = static_cast<LinkRun*>(arg);
    SocketClient* pThis = run->m_pOwner;
    OSAbstractLayer::osal_detach_current_thread();
    t_receiverRun = run;  // the hooks below act on this thread's run

    size_t backOff = 0;
    size_t parked = 0;
    while (run->m_fReceiving && !run->m_fLost) {
        const int pauseMs = run->receiverPauseMs();
        if (pauseMs > 0) {
            run->waitForChange(pauseMs);  // a caller reads its own reply and whatever comes with it
            continue;
        }
        if (run->m_fCallBackWatching) {
            // The idle callback thread reads and hands out events itself; this thread takes over
            // when it stays busy in a callback, has no callback, or the link is lost.
            run->waitForChange(nextBackOff(parked));
            continue;
        }
        parked = 0;
        if (!pThis->watchOnce(run, backOff)) {
            break;
        }
    }

    const bool lost = run->m_fReceiving;
    ZT_LOG(Common::ZT_LOG_DEBUG, "After dataReceiver loop, pThis->m_fReceiverStarted=%d", lost ? 1 : 0);
    if (lost) {
        pThis->onNetException();
    }
    ZT_LOG(Common::ZT_LOG_INFO, "SocketClient: Receiver thread fininsed.");
    run->m_fReceiving = false;
    pThis->clearIfCurrent(run, pThis->m_fReceiverStarted);
    pThis->onReceiverStopped();
    if (run->m_fSocketOpen) {
        pThis->closeSocketOf(run);
    }
    run->setThreadDone(&LinkRun::m_fReceiverDone, true);
    t_receiverRun = nullptr;
    // The last touch of the client: from here on it may be destroyed.
    pThis->threadEnded();
    LinkRun::release(run);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// TransferClient

TransferClient::TransferClient()
    : m_fTransferStarted(false), m_fnActionReceived(nullptr), m_pUserData(nullptr), m_nCallBackRunner(0) {
    OSAbstractLayer::osal_init_mutex(&m_mutexActionCallBackFunction);
    OSAbstractLayer::osal_init_mutex(&m_mutexService);
}

TransferClient::~TransferClient() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "~TransferClient");
    if (m_fTransferStarted) {
        stopTransfer();
    }
    // A run that was lost, or never got going, may still have threads to end and wait for.
    retireRun();
    waitForThreads();
    OSAbstractLayer::osal_destroy_mutex(&m_mutexService);
    OSAbstractLayer::osal_destroy_mutex(&m_mutexActionCallBackFunction);
    ZT_LOG(Common::ZT_LOG_INFO, "TransferClient destroyed.");
}

bool TransferClient::startTransfer() {
    if (m_fTransferStarted) {
        if (!currentRunLost()) {
            ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient is already started!");
            return false;
        }
        stopTransfer();  // a lost link is given up rather than waited out
    }
    {
        // The new run makes older ones silent (no null frame); under the callback mutex, so that
        // an older run's thread either gives its null frame before this point or not at all.
        MutexGuard guard(insideCallBack() ? nullptr : &m_mutexActionCallBackFunction);
        if (!createSocket()) {
            return false;
        }
    }
    if (!connectToServer()) {
        closeSocket();
        return false;
    }
    // Started before the receiver runs, so that a connection lost at once is reported as such.
    m_fTransferStarted = true;
    if (!startReceiver()) {
        m_fTransferStarted = false;
        closeSocket();
        return false;
    }
    RunRef run(acquireRun());
    if (!startCallBackThread(run.get())) {
        m_fTransferStarted = false;
        ZT_LOG(Common::ZT_LOG_ERROR, "Fail to create thread!");
        stopReceiver();  // the receiver alone would hold the socket open
        return false;
    }
    return true;
}

bool TransferClient::startCallBackThread(LinkRun* run) {
    if (run == nullptr) {
        return false;
    }
    run->setThreadDone(&LinkRun::m_fCallBackDone, false);
    threadStarting();
    if (!startRunThread(thread_actionCallBack, run)) {
        threadEnded();
        run->setThreadDone(&LinkRun::m_fCallBackDone, true);
        return false;
    }
    return true;
}

bool TransferClient::stopTransfer() {
    if (!m_fTransferStarted.exchange(false)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient is already stopped!");
        return false;
    }
    RunRef run(detachRun());
    if (run.get() == nullptr) {
        return false;
    }
    run->stop();
    stopReceiverOf(run.get());
    run->dropQueued();  // nothing of a stopped connection reaches a later one
    ZT_LOG(Common::ZT_LOG_DEBUG, "waiting ActionCallBackThread...");
    // From inside a callback the callback thread is this thread, or waits for it: it ends by
    // itself once the callback returns.
    if (!insideCallBack()) {
        run->waitForThreadDone(&LinkRun::m_fCallBackDone);
    }
    if (!closeSocketOf(run.get())) {
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "TransferClient stopped.");
    return true;
}

void TransferClient::setActionCallBack(ActionCallBack fn, void* userData) {
    {
        // Inside a callback this thread holds the callback mutex already.
        MutexGuard guard(insideCallBack() ? nullptr : &m_mutexActionCallBackFunction);
        m_fnActionReceived = fn;
        m_pUserData = userData;
    }
    RunRef run(acquireRun());
    if (run.get() != nullptr) {
        run->signalWork();  // frames may be waiting for a callback
    }
}

bool TransferClient::currentRunLost() {
    RunRef run(acquireRun());
    return run.get() != nullptr && run->m_fLost;
}

bool TransferClient::insideCallBack() const {
    return m_nCallBackRunner.load() == OSAbstractLayer::osal_current_thread_id();
}

bool TransferClient::lockService() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "before lock service");
    if (OSAbstractLayer::osal_lock_mutex(&m_mutexService) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot lock mutex m_mutexService!");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "after lock service");
    return true;
}

bool TransferClient::unlockService() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "before unlock service");
    if (OSAbstractLayer::osal_unlock_mutex(&m_mutexService) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot unlock mutex m_mutexService!");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "after unlock service");
    return true;
}

int TransferClient::serviceCall(char* buf, int len, char*& resp, int* resplen, int timeout) {
    // A message holds at least its action ID, and its frame must be countable in an int.
    if (buf == nullptr || len < static_cast<int>(sizeof(int32_t)) || len > INT_MAX - Frame::MSG_LENGTH_OFFSET) {
        return kServiceBadCall;
    }
    const int32_t requestID = static_cast<int32_t>(getLittleEndian32(buf));
    RunRef run(acquireRun());
    ClientLock<TransferClient> service(this, &TransferClient::lockService, &TransferClient::unlockService);
    if (!service.held()) {
        ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock service!");
        return kServiceLockFailed;
    }
    // A run still connecting belongs to a registration under way: an older call (one that found
    // the app registered before) keeps off its socket while connect() runs on it.
    if (run.get() != nullptr && (run->m_fLost || !run->m_fConnected)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "server disconnected!");
        return kServiceDisconnected;
    }
    ReadingCall reading(run.get());
    if (resplen != nullptr && run.get() != nullptr) {
        discardStaleReplies(run.get(), requestID);
    }
    ClientLock<SocketClient> socket(this, &SocketClient::lockSocket, &SocketClient::unlockSocket);
    if (!socket.held()) {
        ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock socket!");
        service.keepLocked();  // the service mutex stays locked on this path; kept deliberately
        return kServiceSocketLockFailed;
    }
    const int sent = sendRequest(run.get(), buf, len);
    if (sent != kServiceOk) {
        return sent;
    }
    if (resplen == nullptr) {
        return resp == nullptr ? kServiceOk : kServiceBadCall;
    }
    const int result = waitForResponse(run.get(), requestID, resp, resplen, timeout);
    if (result == kServiceOk) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "Request action:%d finish", requestID);
    }
    return result;
}

void TransferClient::discardStaleReplies(LinkRun* run, int32_t requestID) {
    // Whatever waits in the response queue before this request is sent answers an earlier,
    // abandoned request: it can never be this call's answer.
    char* stale = nullptr;
    while (run->m_replies.pop(&stale)) {
        ZT_LOG(Common::ZT_LOG_ERROR, "requestActionID != responseActionID, requestActionID=%d, responseActionID=%d",
               requestID, Frame::actionIdOf(stale));
        delete[] stale;
    }
}

int TransferClient::sendRequest(LinkRun* run, const char* buf, int len) {
    std::unique_ptr<char[]> frame(Frame::build(buf, static_cast<uint32_t>(len)));
    if (frame == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return kServiceOutOfMemory;
    }
    const long sock = run != nullptr ? run->m_nSock : OSAL_INVALID_SOCKET;
    int sent = 0;
    if (OSAbstractLayer::osal_send_all(sock, frame.get(), len + Frame::MSG_LENGTH_OFFSET, kSendTimeoutSeconds,
                                       &sent) <= 0) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Send data fail!");
        if (sent > 0 && run != nullptr) {
            // Part of the frame is on the connection and the rest never will be: the service would
            // take whatever followed as that frame's body, so nothing may follow. The connection
            // is given up as a lost service; later calls on it fail as disconnected.
            ZT_LOG(Common::ZT_LOG_WARNING, "A frame was cut after %d of %d bytes: the connection is given up", sent,
                   len + Frame::MSG_LENGTH_OFFSET);
            markLost(run);
        }
        return kServiceSendFailed;
    }
    return kServiceOk;
}

int TransferClient::waitForResponse(LinkRun* run, int32_t requestID, char*& resp, int* resplen, int timeout) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "Request action:%d send, wait for response..", requestID);
    const long start = OSAbstractLayer::osal_monotonic_seconds();
    for (;;) {
        if (!run->m_fActive || run->m_fLost) {
            ZT_LOG(Common::ZT_LOG_WARNING, "server disconnected!");
            return kServiceDisconnected;
        }
        char* popped = nullptr;
        if (run->m_replies.pop(&popped)) {
            std::unique_ptr<char[]> response(popped);
            const int32_t responseID = Frame::actionIdOf(popped);
            if (responseID != requestID) {
                ZT_LOG(Common::ZT_LOG_ERROR,
                       "requestActionID != responseActionID, requestActionID=%d, responseActionID=%d", requestID,
                       responseID);
                continue;
            }
            const uint32_t length = Frame::lengthOf(popped);
            delete[] resp;
            resp = new (std::nothrow) char[length];
            if (resp == nullptr) {
                ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
                return kServiceOutOfMemory;
            }
            *resplen = static_cast<int>(length);
            memcpy(resp, popped + Frame::MSG_LENGTH_OFFSET, length);
            return kServiceOk;
        }
        if (OSAbstractLayer::osal_monotonic_seconds() - start > timeout) {
            ZT_LOG(Common::ZT_LOG_WARNING, "timeout %ds for receiving response!", timeout);
            return kServiceTimeout;
        }
        // Blocks up to the receive time-out set at connect; a stop ends it at once.
        if (!readSocket(run, true)) {
            markLost(run);
        }
    }
}

bool TransferClient::receiveFrames(LinkRun* run) {
    if (readSocket(run, false)) {
        return true;
    }
    markLost(run);
    return false;
}

bool TransferClient::readSocket(LinkRun* run, bool wait) {
    int room = 0;
    char* space = run->m_reader.space(&room);
    if (space == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "before osal_recv");
    const int received = OSAbstractLayer::osal_recv_some(run->m_nSock, space, room, !wait);
    const int error = errno;
    ZT_LOG(Common::ZT_LOG_DEBUG, "after osal_recv");
    if (received > 0) {
        run->m_reader.commit(received);
        return takeFrames(run);
    }
    if (received < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
        return !run->frameStalled() || dropStalledFrame(run);
    }
    // Closed or reset: a loss, whatever was half read. After a stop it is our own shutdown.
    if (!run->m_fStopped) {
        ZT_LOG(Common::ZT_LOG_WARNING, "network error! m_nSockID=%d, errorno = %d", static_cast<int>(run->m_nSock),
               received == 0 ? 0 : error);
    }
    return false;
}

bool TransferClient::takeFrames(LinkRun* run) {
    for (;;) {
        char* frame = nullptr;
        uint32_t length = 0;
        switch (run->m_reader.next(&frame, &length)) {
            case Frame::Reader::kComplete:
                if (length > Frame::kLengthWarningLimit) {
                    ZT_LOG(Common::ZT_LOG_WARNING, "Wrong data! buffLen=%d", static_cast<int>(length));
                }
                route(run, frame);
                break;
            case Frame::Reader::kTooShort:
                ZT_LOG(Common::ZT_LOG_WARNING, "Dropped a frame of %u bytes: too short for an action ID",
                       static_cast<unsigned int>(length));
                break;
            case Frame::Reader::kTooLong:
                ZT_LOG(Common::ZT_LOG_WARNING, "Wrong data! buffLen=%d", static_cast<int>(length));
                ZT_LOG(Common::ZT_LOG_ERROR, "A frame of %u bytes is over the %u-byte limit: giving the link up",
                       length, Frame::kMaxLength);
                return false;
            case Frame::Reader::kOutOfMemory:
                ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
                return false;  // the frame can never be taken off the stream: give the link up
            case Frame::Reader::kIncomplete:
                if (run->m_reader.partialHeader()) {
                    ZT_LOG(Common::ZT_LOG_ERROR,
                           "nRead < MSG_LENGTH_OFFSET + sizeof(int)! check the code, use osal_recvn instead!");
                }
                run->m_nPartialSinceMs = run->m_reader.pending() > 0 ? OSAbstractLayer::osal_monotonic_ms() : 0;
                return true;
        }
    }
}

bool TransferClient::dropStalledFrame(LinkRun* run) {
    uint32_t length = 0;
    int32_t actionID = 0;
    run->m_reader.discardPending(&length, &actionID);
    run->m_nPartialSinceMs = 0;
    const int total = static_cast<int>(length) + Frame::MSG_LENGTH_OFFSET;
    ZT_LOG(Common::ZT_LOG_ERROR, "fail to read %d data, ActionID=%d", total, actionID);
    ZT_LOG(Common::ZT_LOG_WARNING, "Read data timeout!buffLen=%d, ActionID=%d", total, actionID);
    return true;  // the stream may now be out of step; accepted
}

void TransferClient::route(LinkRun* run, char* frame) {
    const int32_t actionID = Frame::actionIdOf(frame);
    if (IsEventActionID(actionID)) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "Receive ActionCallBack action:%d", actionID);
        run->m_events.push(frame);
        run->signalWork();
    } else {
        ZT_LOG(Common::ZT_LOG_DEBUG, "Receive service response action:%d", actionID);
        run->m_replies.push(frame);
    }
}

void TransferClient::markLost(LinkRun* run) {
    if (!run->m_fStopped && !run->m_fLost.exchange(true)) {
        run->broadcast();  // the receiver reports it, also from a pause
    }
}

bool TransferClient::receiverEnded(LinkRun* run) {
    // Before the callback thread is let go: its null frame must find the link stopped and this
    // line written.
    const bool unexpected = clearIfCurrent(run, m_fTransferStarted);
    if (unexpected) {
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient: Receiver stopped unexpectedly.");
    }
    run->m_fActive = false;
    run->broadcast();
    run->signalWork();
    return unexpected;
}

bool TransferClient::reportLoss(LinkRun* run) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "onNetException called.");
    char* frame = new (std::nothrow) char[Frame::kHeaderSize];
    if (frame == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return false;
    }
    putLittleEndian32(frame, sizeof(int32_t));
    putLittleEndian32(frame + Frame::MSG_LENGTH_OFFSET, static_cast<uint32_t>(ACTION_SERVER_DISCONNECTED));
    run->m_events.push(frame);
    run->signalWork();
    ZT_LOG(Common::ZT_LOG_DEBUG, "wait for NetException to be handled");
    // Until the callback has taken the event; a stop ends the wait, since the callback thread
    // is then leaving and would never take it.
    while (!run->m_events.empty() && !run->m_fStopped) {
        run->waitForChange(kNetExceptionPollMs);
    }
    run->sleepUnlessStopped(kNetExceptionSettleMs);
    ZT_LOG(Common::ZT_LOG_DEBUG, "after waiting");
    run->sleepUnlessStopped(kNetExceptionTailMs);
    return true;
}

unsigned int TransferClient::thread_actionCallBack(void* arg) {
    LinkRun* run = static_cast<LinkRun*>(arg);
    // Only a TransferClient starts this thread.
    TransferClient* pThis = static_cast<TransferClient*>(run->m_pOwner);
    OSAbstractLayer::osal_detach_current_thread();

    size_t backOff = 0;
    while (run->m_fActive) {
        const Delivery delivery = pThis->deliverNext(run);
        if (delivery == kDelivered) {
            backOff = 0;
            continue;
        }
        // Idle with a callback: reads the socket itself, so that an event costs one wake-up.
        if (delivery == kNothingQueued && !run->m_fLost && run->receiverPauseMs() == 0) {
            run->m_fCallBackWatching = true;
            const bool keepGoing = pThis->watchOnce(run, backOff);
            run->m_fCallBackWatching = false;
            if (!keepGoing) {
                pThis->markLost(run);
            }
            continue;
        }
        run->waitForWork(nextBackOff(backOff));
    }

    ZT_LOG(Common::ZT_LOG_INFO, "ActionCallBack thread fininsed.");
    pThis->deliverEnd(run);
    run->setThreadDone(&LinkRun::m_fCallBackDone, true);
    // The last touch of the client: from here on it may be destroyed.
    pThis->threadEnded();
    LinkRun::release(run);
    return 0;
}

TransferClient::Delivery TransferClient::deliverNext(LinkRun* run) {
    std::unique_ptr<char[]> frame;  // freed once the callback mutex is released
    MutexGuard guard(&m_mutexActionCallBackFunction);
    // Checked under the callback mutex, so that a stop or a null callback set from inside the
    // previous callback holds from the next frame on.
    if (!run->m_fActive || m_fnActionReceived == nullptr) {
        return kNoCallBack;
    }
    char* popped = nullptr;
    if (!run->m_events.pop(&popped)) {
        return kNothingQueued;
    }
    frame.reset(popped);
    ZT_LOG(Common::ZT_LOG_DEBUG, "before calling pThis->m_fnActionReceived");
    m_nCallBackRunner = OSAbstractLayer::osal_current_thread_id();
    m_fnActionReceived(popped, m_pUserData);
    m_nCallBackRunner = 0;
    ZT_LOG(Common::ZT_LOG_DEBUG, "after calling pThis->m_fnActionReceived");
    return kDelivered;
}

void TransferClient::deliverEnd(LinkRun* run) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "before lock  m_mutexActionCallBackFunction");
    {
        MutexGuard guard(&m_mutexActionCallBackFunction);
        ZT_LOG(Common::ZT_LOG_DEBUG, "after lock  m_mutexActionCallBackFunction");
        // A run that a newer start has replaced ends silently: its null frame would tell the
        // callback that the new link had ended.
        if (m_fnActionReceived != nullptr && isLatestRun(run)) {
            m_nCallBackRunner = OSAbstractLayer::osal_current_thread_id();
            m_fnActionReceived(nullptr, m_pUserData);
            m_nCallBackRunner = 0;
        }
        ZT_LOG(Common::ZT_LOG_DEBUG, "before unlock  m_mutexActionCallBackFunction");
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "after unlock  m_mutexActionCallBackFunction");
}

}  // namespace Agent
}  // namespace PELK
