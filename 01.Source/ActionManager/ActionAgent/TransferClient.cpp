#include "TransferClient.h"

#include <errno.h>

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
// The response waiter never sleeps longer than this between polls.
const int kResponsePollCapMs = 10;

const int kQueueCapacity = 64;
const int kSendTimeoutSeconds = 5;
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

unsigned int freeQueued(Common::Queue<char*>& queue) {
    unsigned int freed = 0;
    char* frame = nullptr;
    while (queue.pop(&frame)) {
        delete[] frame;
        ++freed;
    }
    return freed;
}

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

    SocketClient* const m_pOwner;
    const long m_nSock;
    uint64_t m_nGeneration;  // set once, under the client's run mutex, before any thread starts
    std::atomic<int> m_nRefs;
    std::atomic<bool> m_fSocketOpen;  // until closeSocket shuts the connection down
    std::atomic<bool> m_fReceiving;   // the receiver thread is meant to run
    std::atomic<bool> m_fActive;      // frames are handed out: until a stop or the receiver's end
    std::atomic<bool> m_fStopped;     // stopped on purpose, not lost
    Common::Queue<char*> m_actionCallBackQueue;
    Common::Queue<char*> m_responseQueue;

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
      m_actionCallBackQueue(kQueueCapacity),
      m_responseQueue(kQueueCapacity),
      m_fWorkPending(false),
      m_fCallBackWaiting(false),
      m_fReceiverDone(true),
      m_fCallBackDone(true) {
    OSAbstractLayer::osal_init_mutex(&m_stateMutex);
    OSAbstractLayer::osal_init_condition(&m_changed);
    OSAbstractLayer::osal_init_condition(&m_workArrived);
}

LinkRun::~LinkRun() {
    const unsigned int dropped = freeQueued(m_actionCallBackQueue) + freeQueued(m_responseQueue);
    if (dropped > 0) {
        ZT_LOG(Common::ZT_LOG_INFO, "Dropped %u frames of connection %d, which has ended", dropped,
               static_cast<int>(m_nSock));
    }
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
    MutexGuard guard(&m_stateMutex);
    m_fWorkPending = true;
    if (m_fCallBackWaiting) {
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

// ---------------------------------------------------------------------------------------------
// Frame

namespace Frame {

uint32_t lengthOf(const char* frame) {
    return getLittleEndian32(frame);
}

int32_t actionIdOf(const char* frame) {
    return static_cast<int32_t>(getLittleEndian32(frame + MSG_LENGTH_OFFSET));
}

char* build(const char* message, uint32_t length) {
    char* frame = new (std::nothrow) char[static_cast<size_t>(length) + MSG_LENGTH_OFFSET];
    if (frame != nullptr) {
        putLittleEndian32(frame, length);
        memcpy(frame + MSG_LENGTH_OFFSET, message, length);
    }
    return frame;
}

}  // namespace Frame

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
    LinkRun* run = detachRun();
    if (run != nullptr) {
        run->stop();
        if (run->m_fReceiving) {
            stopReceiverOf(run);
        }
        if (run->m_fSocketOpen) {
            closeSocketOf(run);
        }
        LinkRun::release(run);
    }
    waitForThreads();
    OSAbstractLayer::osal_destroy_condition(&m_threadsEnded);
    OSAbstractLayer::osal_destroy_mutex(&m_threadsMutex);
    OSAbstractLayer::osal_destroy_mutex(&m_runMutex);
    OSAbstractLayer::osal_destroy_mutex(&m_clientSockMutex);
    ZT_LOG(Common::ZT_LOG_DEBUG, "osal_destroy_network called.");
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

bool SocketClient::onDataReceived() {
    RunRef run(acquireRun());
    if (run.get() == nullptr || !lockSocket()) {
        return false;
    }
    const bool keepGoing = receiveFrames(run.get());
    unlockSocket();
    return keepGoing;
}

bool SocketClient::onReceiverStopped() {
    RunRef run(acquireRun());
    return run.get() != nullptr && receiverEnded(run.get());
}

bool SocketClient::onNetException() {
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

unsigned int SocketClient::thread_dataReceiver(void* arg) {
    LinkRun* run = static_cast<LinkRun*>(arg);
    SocketClient* pThis = run->m_pOwner;
    OSAbstractLayer::osal_detach_current_thread();

    size_t backOff = 0;
    while (run->m_fReceiving) {
        if (!pThis->lockSocket()) {
            ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock socket!");
            break;
        }
        int ready = OSAbstractLayer::osal_socketReadable(run->m_nSock, 0, 0);
        const int error = errno;
        pThis->unlockSocket();
        if (ready < 0) {
            ZT_LOG(Common::ZT_LOG_ERROR, "select fail! socket=%d, error=%d", static_cast<int>(run->m_nSock), error);
            break;
        }
        if (ready == 0) {
            // Waits as long as the back-off says, but wakes as soon as data arrives. The socket
            // mutex stays free meanwhile; whatever the wait saw is checked again under it.
            OSAbstractLayer::osal_socketReadable(run->m_nSock, 0, nextBackOff(backOff) * 1000);
            continue;
        }
        ZT_LOG(Common::ZT_LOG_DEBUG, "before onDataReceived");
        pThis->lockSocket();
        const bool keepGoing = pThis->receiveFrames(run);
        pThis->unlockSocket();
        ZT_LOG(Common::ZT_LOG_DEBUG, "after onDataReceived");
        if (!keepGoing) {
            break;
        }
        backOff = 0;
    }

    const bool lost = run->m_fReceiving;
    ZT_LOG(Common::ZT_LOG_DEBUG, "After dataReceiver loop, pThis->m_fReceiverStarted=%d", lost ? 1 : 0);
    if (lost) {
        pThis->reportLoss(run);
    }
    ZT_LOG(Common::ZT_LOG_INFO, "SocketClient: Receiver thread fininsed.");
    run->m_fReceiving = false;
    pThis->clearIfCurrent(run, pThis->m_fReceiverStarted);
    pThis->receiverEnded(run);
    if (run->m_fSocketOpen) {
        pThis->closeSocketOf(run);
    }
    run->setThreadDone(&LinkRun::m_fReceiverDone, true);
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
    // A run that was lost, or never got going, still has its threads' last steps to wait for.
    LinkRun* run = detachRun();
    if (run != nullptr) {
        run->stop();
        LinkRun::release(run);
    }
    waitForThreads();
    OSAbstractLayer::osal_destroy_mutex(&m_mutexService);
    OSAbstractLayer::osal_destroy_mutex(&m_mutexActionCallBackFunction);
    ZT_LOG(Common::ZT_LOG_INFO, "TransferClient destroyed.");
}

bool TransferClient::startTransfer() {
    if (m_fTransferStarted) {
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient is already started!");
        return false;
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
    if (!lockService()) {
        ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock service!");
        return kServiceLockFailed;
    }
    if (resplen != nullptr && run.get() != nullptr) {
        // Whatever waits in the response queue before this request is sent answers an earlier,
        // abandoned request: it can never be this call's answer.
        char* stale = nullptr;
        while (run->m_responseQueue.pop(&stale)) {
            ZT_LOG(Common::ZT_LOG_ERROR, "requestActionID != responseActionID, requestActionID=%d, responseActionID=%d",
                   requestID, stale != nullptr ? Frame::actionIdOf(stale) : 0);
            delete[] stale;
        }
    }
    if (!lockSocket()) {
        ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock socket!");
        return kServiceSocketLockFailed;  // the service mutex stays locked here; kept deliberately
    }
    char* frame = Frame::build(buf, static_cast<uint32_t>(len));
    if (frame == nullptr) {
        unlockSocket();
        unlockService();
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return kServiceOutOfMemory;
    }
    const long sock = run.get() != nullptr ? run->m_nSock : OSAL_INVALID_SOCKET;
    int sent = OSAbstractLayer::osal_sendn(sock, frame, len + Frame::MSG_LENGTH_OFFSET, 0, kSendTimeoutSeconds, nullptr);
    delete[] frame;
    unlockSocket();
    if (sent <= 0) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Send data fail!");
        unlockService();
        return kServiceSendFailed;
    }
    if (resplen == nullptr) {
        unlockService();
        return resp == nullptr ? kServiceOk : kServiceBadCall;
    }
    const int result = waitForResponse(run.get(), requestID, resp, resplen, timeout);
    unlockService();
    if (result == kServiceOk) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "Request action:%d finish", requestID);
    }
    return result;
}

int TransferClient::waitForResponse(LinkRun* run, int32_t requestID, char*& resp, int* resplen, int timeout) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "Request action:%d send, wait for response..", requestID);
    const long start = OSAbstractLayer::osal_monotonic_seconds();
    size_t backOff = 0;
    for (;;) {
        if (!run->m_fActive) {
            ZT_LOG(Common::ZT_LOG_WARNING, "server disconnected!");
            return kServiceDisconnected;
        }
        if (run->m_responseQueue.empty()) {
            const long now = OSAbstractLayer::osal_monotonic_seconds();
            // Waits as the back-off says, but wakes as soon as a response or a loss arrives.
            if (kBackOffMs[backOff] <= kResponsePollCapMs) {
                run->waitForChange(kBackOffMs[backOff]);
                ++backOff;
            } else {
                run->waitForChange(kResponsePollCapMs);
            }
            if (now - start > timeout) {
                ZT_LOG(Common::ZT_LOG_WARNING, "timeout %ds for receiving response!", timeout);
                return kServiceTimeout;
            }
            continue;
        }
        char* popped = nullptr;
        if (!run->m_responseQueue.pop(&popped) || popped == nullptr) {
            ZT_LOG(Common::ZT_LOG_ERROR, "Error to get response! Check code please!");
            return kServiceBadCall;
        }
        std::unique_ptr<char[]> response(popped);
        const int32_t responseID = Frame::actionIdOf(popped);
        if (responseID != requestID) {
            ZT_LOG(Common::ZT_LOG_ERROR, "requestActionID != responseActionID, requestActionID=%d, responseActionID=%d",
                   requestID, responseID);
            backOff = 0;
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
}

bool TransferClient::receiveFrames(LinkRun* run) {
    char header[Frame::kHeaderSize];
    ZT_LOG(Common::ZT_LOG_DEBUG, "before osal_recv");
    const int peeked = OSAbstractLayer::osal_peek(run->m_nSock, header, Frame::kHeaderSize);
    const int peekError = errno;
    ZT_LOG(Common::ZT_LOG_DEBUG, "after osal_recv");
    if (peeked < 0 && (peekError == EAGAIN || peekError == EWOULDBLOCK)) {
        return true;  // nothing there after all; poll again
    }
    if (peeked < 1) {
        ZT_LOG(Common::ZT_LOG_WARNING, "network error! m_nSockID=%d, errorno = %d", static_cast<int>(run->m_nSock),
               peekError);
        return false;
    }
    if (peeked < Frame::kHeaderSize) {
        ZT_LOG(Common::ZT_LOG_ERROR, "nRead < MSG_LENGTH_OFFSET + sizeof(int)! check the code, use osal_recvn instead!");
        return true;
    }
    const uint32_t length = Frame::lengthOf(header);
    const int32_t actionID = Frame::actionIdOf(header);
    if (length > Frame::kLengthWarningLimit) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Wrong data! buffLen=%d", static_cast<int>(length));
    }
    // No upper bound rejects a frame; only what can be allocated and counted in an int.
    char* buffer = nullptr;
    if (length <= static_cast<uint32_t>(INT_MAX - Frame::MSG_LENGTH_OFFSET)) {
        // Never smaller than a header, so that a short frame still has an action ID to read.
        const size_t size = length < 4 ? Frame::kHeaderSize : static_cast<size_t>(length) + Frame::MSG_LENGTH_OFFSET;
        buffer = new (std::nothrow) char[size]();
    }
    if (buffer == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return false;  // the frame can never be taken off the stream: give the link up
    }
    const int total = static_cast<int>(length) + Frame::MSG_LENGTH_OFFSET;
    const int read = OSAbstractLayer::osal_recvn(run->m_nSock, buffer, total, 0, kFrameReadTimeoutSeconds, nullptr);
    const int readError = errno;
    if (read > 0) {
        const int32_t routedID = Frame::actionIdOf(buffer);
        if (IsEventActionID(routedID)) {
            ZT_LOG(Common::ZT_LOG_DEBUG, "Receive ActionCallBack action:%d", routedID);
            run->m_actionCallBackQueue.lock();
            run->m_actionCallBackQueue.push_unlock(buffer);
            run->m_actionCallBackQueue.unlock();
            run->signalWork();
        } else {
            ZT_LOG(Common::ZT_LOG_DEBUG, "Receive service response action:%d", routedID);
            run->m_responseQueue.lock();
            run->m_responseQueue.push_unlock(buffer);
            run->m_responseQueue.unlock();
            run->broadcast();
        }
        return true;
    }
    delete[] buffer;
    ZT_LOG(Common::ZT_LOG_ERROR, "fail to read %d data, ActionID=%d", total, actionID);
    if (read == 0) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Read data timeout!buffLen=%d, ActionID=%d", total, actionID);
    } else {
        ZT_LOG(Common::ZT_LOG_WARNING, "Wrong reading data, error=%d!", readError);
    }
    return true;  // the stream may now be out of step; accepted
}

bool TransferClient::receiverEnded(LinkRun* run) {
    run->m_fActive = false;
    run->broadcast();
    run->signalWork();
    if (clearIfCurrent(run, m_fTransferStarted)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient: Receiver stopped unexpectedly.");
        return true;
    }
    return false;
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
    run->m_actionCallBackQueue.lock();
    run->m_actionCallBackQueue.push_unlock(frame);
    run->m_actionCallBackQueue.unlock();
    run->signalWork();
    ZT_LOG(Common::ZT_LOG_DEBUG, "wait for NetException to be handled");
    // Until the callback has taken the event; a stop ends the wait, since the callback thread
    // is then leaving and would never take it.
    while (!run->m_actionCallBackQueue.empty() && !run->m_fStopped) {
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
        if (pThis->deliverNext(run)) {
            backOff = 0;
            continue;
        }
        run->waitForWork(nextBackOff(backOff));
    }

    ZT_LOG(Common::ZT_LOG_INFO, "ActionCallBack thread fininsed.");
    pThis->clearIfCurrent(run, pThis->m_fTransferStarted);
    pThis->deliverEnd(run);
    run->setThreadDone(&LinkRun::m_fCallBackDone, true);
    // The last touch of the client: from here on it may be destroyed.
    pThis->threadEnded();
    LinkRun::release(run);
    return 0;
}

bool TransferClient::deliverNext(LinkRun* run) {
    std::unique_ptr<char[]> frame;  // freed once the callback mutex is released
    MutexGuard guard(&m_mutexActionCallBackFunction);
    // Checked under the callback mutex, so that a stop or a null callback set from inside the
    // previous callback holds from the next frame on.
    char* popped = nullptr;
    if (!run->m_fActive || m_fnActionReceived == nullptr || !run->m_actionCallBackQueue.pop(&popped)) {
        return false;
    }
    frame.reset(popped);
    ZT_LOG(Common::ZT_LOG_DEBUG, "before calling pThis->m_fnActionReceived");
    m_nCallBackRunner = OSAbstractLayer::osal_current_thread_id();
    m_fnActionReceived(popped, m_pUserData);
    m_nCallBackRunner = 0;
    ZT_LOG(Common::ZT_LOG_DEBUG, "after calling pThis->m_fnActionReceived");
    return true;
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
