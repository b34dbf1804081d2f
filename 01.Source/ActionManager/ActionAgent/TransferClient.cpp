#include "TransferClient.h"

#include <errno.h>

#include <climits>
#include <cstring>
#include <new>

#include "ActionManager/Struct.h"
#include "ActionManager/WireFormat.h"
#include "CommonLib/OSAL.h"
#include "CommonLib/ZTLogger.h"

namespace PELK {
namespace Agent {

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

// Waits until the thread that holds a lifetime mutex has released it for good.
void waitForLifetimeMutex(pthread_mutex_t* mutex) {
    OSAbstractLayer::osal_lock_mutex(mutex);
    OSAbstractLayer::osal_unlock_mutex(mutex);
}

// Starts fn(owner) and returns once the new thread holds its lifetime mutex, so that a stop
// made right after the start waits for the thread instead of missing it.
bool startOwnedThread(unsigned int (*fn)(void*), void* owner, sem_t* starting) {
    long thread = 0;
    if (OSAbstractLayer::osal_create_thread(&thread, fn, owner) != 0) {
        return false;
    }
    OSAbstractLayer::osal_lock_cond(starting, -1);
    return true;
}

// The first steps of an owned thread: detach, take the lifetime mutex, let the starter go on.
// On failure the thread's run flag is cleared and the thread must end at once.
bool enterOwnedThread(pthread_mutex_t* lifetime, sem_t* starting, std::atomic<bool>& runFlag) {
    OSAbstractLayer::osal_detach_current_thread();
    const bool locked = OSAbstractLayer::osal_lock_mutex(lifetime) == 0;
    if (!locked) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: cannot lock mutex!");
        runFlag = false;
    }
    OSAbstractLayer::osal_unlock_cond(starting);
    return locked;
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

SocketClient::SocketClient() : m_nSockID(OSAL_INVALID_SOCKET), m_fReceiverStarted(false) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "osal_init_network() called.");
    OSAbstractLayer::osal_init_mutex(&m_clientSockMutex);
    OSAbstractLayer::osal_init_mutex(&m_receiverThreadMutex);
    OSAbstractLayer::osal_init_cond(&m_receiverStarting);
}

SocketClient::~SocketClient() {
    if (m_fReceiverStarted) {
        stopReceiver();
    }
    waitForReceiverExit();
    if (m_nSockID != OSAL_INVALID_SOCKET) {
        closeSocket();
    }
    OSAbstractLayer::osal_destroy_cond(&m_receiverStarting);
    OSAbstractLayer::osal_destroy_mutex(&m_receiverThreadMutex);
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
    OSAbstractLayer::osal_lock_mutex(&m_clientSockMutex);
    m_nSockID = sock;
    OSAbstractLayer::osal_unlock_mutex(&m_clientSockMutex);
    ZT_LOG(Common::ZT_LOG_DEBUG, "socket:%d created", static_cast<int>(sock));
    return true;
}

bool SocketClient::connectToServer() {
    long sock = m_nSockID;
    if (sock == OSAL_INVALID_SOCKET) {
        ZT_LOG(Common::ZT_LOG_WARNING, "socket is closed.");
        return false;
    }
    if (OSAbstractLayer::osal_connect(sock, kServiceAddress, kServicePort) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Failed to connect to port :[%d], error=%d\n", kServicePort, errno);
        return false;
    }
    ZT_LOG(Common::ZT_LOG_INFO, "Socket Client is connectted to server.");
    return true;
}

bool SocketClient::closeSocket() {
    // Under the socket mutex, so that no send or frame read is using the descriptor while it
    // is closed (and perhaps reused by another open in the process).
    OSAbstractLayer::osal_lock_mutex(&m_clientSockMutex);
    long sock = m_nSockID.exchange(OSAL_INVALID_SOCKET);
    if (sock != OSAL_INVALID_SOCKET) {
        OSAbstractLayer::osal_close_socket(sock);
    }
    OSAbstractLayer::osal_unlock_mutex(&m_clientSockMutex);
    if (sock == OSAL_INVALID_SOCKET) {
        ZT_LOG(Common::ZT_LOG_WARNING, "SocketClient is already closed.");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "socket %d closed", static_cast<int>(sock));
    return true;
}

bool SocketClient::startReceiver() {
    if (m_fReceiverStarted) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Receiver is already started.");
        return false;
    }
    // A receiver of an earlier run may still be closing its socket.
    waitForReceiverExit();
    if (m_nSockID == OSAL_INVALID_SOCKET) {
        ZT_LOG(Common::ZT_LOG_WARNING, "socket is closed.");
        return false;
    }
    m_fReceiverStarted = true;
    if (!startOwnedThread(thread_dataReceiver, this, &m_receiverStarting)) {
        m_fReceiverStarted = false;
        ZT_LOG(Common::ZT_LOG_ERROR, "Fail to create thread!");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "Client receiver is started.");
    return true;
}

bool SocketClient::stopReceiver() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "stopping socket client receiver...");
    if (!m_fReceiverStarted.exchange(false)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Receiver is already stoppted.");
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "waiting for receiver thread...");
    if (OSAbstractLayer::osal_lock_mutex(&m_receiverThreadMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: cannot lock mutex!");
        return false;
    }
    if (OSAbstractLayer::osal_unlock_mutex(&m_receiverThreadMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: cannot unlock mutex!");
        return false;
    }
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
    return false;
}

bool SocketClient::onReceiverStopped() {
    return false;
}

bool SocketClient::onNetException() {
    return false;
}

void SocketClient::waitForReceiverExit() {
    waitForLifetimeMutex(&m_receiverThreadMutex);
}

unsigned int SocketClient::thread_dataReceiver(void* arg) {
    SocketClient* pThis = static_cast<SocketClient*>(arg);
    if (!enterOwnedThread(&pThis->m_receiverThreadMutex, &pThis->m_receiverStarting, pThis->m_fReceiverStarted)) {
        return 0;
    }

    size_t backOff = 0;
    while (pThis->m_fReceiverStarted) {
        if (!pThis->lockSocket()) {
            ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock socket!");
            break;
        }
        const long sock = pThis->m_nSockID;
        int ready = OSAbstractLayer::osal_socketReadable(sock, 0, 0);
        const int error = errno;
        pThis->unlockSocket();
        if (ready < 0) {
            ZT_LOG(Common::ZT_LOG_ERROR, "select fail! socket=%d, error=%d", static_cast<int>(sock), error);
            break;
        }
        if (ready == 0) {
            // Waits as long as the back-off says, but wakes as soon as data arrives. The socket
            // mutex stays free meanwhile; whatever the wait saw is checked again under it.
            OSAbstractLayer::osal_socketReadable(sock, 0, nextBackOff(backOff) * 1000);
            continue;
        }
        ZT_LOG(Common::ZT_LOG_DEBUG, "before onDataReceived");
        bool keepGoing = pThis->onDataReceived();
        ZT_LOG(Common::ZT_LOG_DEBUG, "after onDataReceived");
        if (!keepGoing) {
            break;
        }
        backOff = 0;
    }

    const bool lost = pThis->m_fReceiverStarted;
    ZT_LOG(Common::ZT_LOG_DEBUG, "After dataReceiver loop, pThis->m_fReceiverStarted=%d", lost ? 1 : 0);
    if (lost) {
        pThis->onNetException();
    }
    ZT_LOG(Common::ZT_LOG_INFO, "SocketClient: Receiver thread fininsed.");
    pThis->m_fReceiverStarted = false;
    pThis->onReceiverStopped();
    if (pThis->m_nSockID != OSAL_INVALID_SOCKET) {
        pThis->closeSocket();
    }
    // The last touch of the object: whoever waits on this mutex may destroy it.
    OSAbstractLayer::osal_unlock_mutex(&pThis->m_receiverThreadMutex);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// TransferClient

TransferClient::TransferClient()
    : m_fTransferStarted(false),
      m_actionCallBackQueue(kQueueCapacity),
      m_responseQueue(kQueueCapacity),
      m_fnActionReceived(nullptr),
      m_pUserData(nullptr),
      m_nActionEvent(OSAbstractLayer::osal_create_event()),
      m_nResponseEvent(OSAbstractLayer::osal_create_event()) {
    OSAbstractLayer::osal_init_mutex(&m_actionCallBackThreadMutex);
    OSAbstractLayer::osal_init_mutex(&m_mutexActionCallBackFunction);
    OSAbstractLayer::osal_init_mutex(&m_mutexService);
    OSAbstractLayer::osal_init_cond(&m_callBackThreadStarting);
}

TransferClient::~TransferClient() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "~TransferClient");
    if (m_fTransferStarted) {
        stopTransfer();
    }
    // After a lost link nobody has waited for the two threads' last steps yet.
    waitForReceiverExit();
    waitForCallBackThreadExit();
    freeQueued(m_actionCallBackQueue);
    freeQueued(m_responseQueue);
    OSAbstractLayer::osal_destroy_event(m_nResponseEvent);
    OSAbstractLayer::osal_destroy_event(m_nActionEvent);
    OSAbstractLayer::osal_destroy_cond(&m_callBackThreadStarting);
    OSAbstractLayer::osal_destroy_mutex(&m_mutexService);
    OSAbstractLayer::osal_destroy_mutex(&m_mutexActionCallBackFunction);
    OSAbstractLayer::osal_destroy_mutex(&m_actionCallBackThreadMutex);
    ZT_LOG(Common::ZT_LOG_INFO, "TransferClient destroyed.");
}

bool TransferClient::startTransfer() {
    if (m_fTransferStarted) {
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient is already started!");
        return false;
    }
    // Both threads of an earlier run must be gone before their socket and flags are reused.
    waitForReceiverExit();
    waitForCallBackThreadExit();
    // Answers left from an earlier connection can never match a request on this one.
    freeQueued(m_responseQueue);
    if (!createSocket()) {
        return false;
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
    if (!startOwnedThread(thread_actionCallBack, this, &m_callBackThreadStarting)) {
        m_fTransferStarted = false;
        ZT_LOG(Common::ZT_LOG_ERROR, "Fail to create thread!");
        stopReceiver();  // the receiver alone would hold the socket open
        return false;
    }
    return true;
}

bool TransferClient::stopTransfer() {
    if (!m_fTransferStarted.exchange(false)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient is already stopped!");
        return false;
    }
    wakeWaiters();
    stopReceiver();
    ZT_LOG(Common::ZT_LOG_DEBUG, "waiting ActionCallBackThread...");
    if (OSAbstractLayer::osal_lock_mutex(&m_actionCallBackThreadMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: cannot lock mutex!");
        return false;
    }
    if (OSAbstractLayer::osal_unlock_mutex(&m_actionCallBackThreadMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: cannot unlock mutex!");
        return false;
    }
    if (!closeSocket()) {
        return false;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "TransferClient stopped.");
    return true;
}

void TransferClient::setActionCallBack(ActionCallBack fn, void* userData) {
    if (OSAbstractLayer::osal_lock_mutex(&m_mutexActionCallBackFunction) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: cannot lock mutex!");
        return;
    }
    m_fnActionReceived = fn;
    m_pUserData = userData;
    OSAbstractLayer::osal_unlock_mutex(&m_mutexActionCallBackFunction);
    OSAbstractLayer::osal_signal_event(m_nActionEvent);  // frames may be waiting for a callback
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
    if (!lockService()) {
        ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock service!");
        return kServiceLockFailed;
    }
    if (resplen != nullptr) {
        // Whatever waits in the response queue before this request is sent answers an earlier,
        // abandoned request: it can never be this call's answer.
        char* stale = nullptr;
        while (m_responseQueue.pop(&stale)) {
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
    int sent = OSAbstractLayer::osal_sendn(m_nSockID, frame, len + Frame::MSG_LENGTH_OFFSET, 0, kSendTimeoutSeconds,
                                           nullptr);
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

    ZT_LOG(Common::ZT_LOG_DEBUG, "Request action:%d send, wait for response..", requestID);
    const long start = OSAbstractLayer::osal_monotonic_seconds();
    size_t backOff = 0;
    for (;;) {
        if (m_responseQueue.empty()) {
            if (!m_fTransferStarted) {
                unlockService();
                ZT_LOG(Common::ZT_LOG_WARNING, "server disconnected!");
                return kServiceDisconnected;
            }
            const long now = OSAbstractLayer::osal_monotonic_seconds();
            // Waits as the back-off says, but wakes as soon as a response or a loss arrives.
            if (kBackOffMs[backOff] <= kResponsePollCapMs) {
                OSAbstractLayer::osal_wait_event(m_nResponseEvent, kBackOffMs[backOff]);
                ++backOff;
            } else {
                OSAbstractLayer::osal_wait_event(m_nResponseEvent, kResponsePollCapMs);
            }
            if (now - start > timeout) {
                unlockService();
                ZT_LOG(Common::ZT_LOG_WARNING, "timeout %ds for receiving response!", timeout);
                return kServiceTimeout;
            }
            continue;
        }
        if (!m_fTransferStarted) {
            unlockService();
            ZT_LOG(Common::ZT_LOG_WARNING, "server disconnected!");
            return kServiceDisconnected;
        }
        char* response = nullptr;
        if (!m_responseQueue.pop(&response) || response == nullptr) {
            unlockService();
            ZT_LOG(Common::ZT_LOG_ERROR, "Error to get response! Check code please!");
            return kServiceBadCall;
        }
        const int32_t responseID = Frame::actionIdOf(response);
        if (responseID != requestID) {
            ZT_LOG(Common::ZT_LOG_ERROR, "requestActionID != responseActionID, requestActionID=%d, responseActionID=%d",
                   requestID, responseID);
            delete[] response;
            backOff = 0;
            continue;
        }
        const uint32_t length = Frame::lengthOf(response);
        delete[] resp;
        resp = new (std::nothrow) char[length];
        if (resp == nullptr) {
            delete[] response;
            unlockService();
            ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
            return kServiceOutOfMemory;
        }
        *resplen = static_cast<int>(length);
        unlockService();
        memcpy(resp, response + Frame::MSG_LENGTH_OFFSET, length);
        delete[] response;
        ZT_LOG(Common::ZT_LOG_DEBUG, "Request action:%d finish", requestID);
        return kServiceOk;
    }
}

bool TransferClient::onDataReceived() {
    if (!lockSocket()) {
        ZT_LOG(Common::ZT_LOG_WARNING, "cannot lock socket!");
        return false;
    }
    char header[Frame::kHeaderSize];
    ZT_LOG(Common::ZT_LOG_DEBUG, "before osal_recv");
    const int peeked = OSAbstractLayer::osal_peek(m_nSockID, header, Frame::kHeaderSize);
    const int peekError = errno;
    ZT_LOG(Common::ZT_LOG_DEBUG, "after osal_recv");
    if (peeked < 0 && (peekError == EAGAIN || peekError == EWOULDBLOCK)) {
        unlockSocket();
        return true;  // nothing there after all; poll again
    }
    if (peeked < 1) {
        unlockSocket();
        ZT_LOG(Common::ZT_LOG_WARNING, "network error! m_nSockID=%d, errorno = %d", static_cast<int>(m_nSockID.load()),
               peekError);
        return false;
    }
    if (peeked < Frame::kHeaderSize) {
        unlockSocket();
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
        unlockSocket();
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return false;  // the frame can never be taken off the stream: give the link up
    }
    const int total = static_cast<int>(length) + Frame::MSG_LENGTH_OFFSET;
    const int read = OSAbstractLayer::osal_recvn(m_nSockID, buffer, total, 0, kFrameReadTimeoutSeconds, nullptr);
    const int readError = errno;
    unlockSocket();
    if (read > 0) {
        const int32_t routedID = Frame::actionIdOf(buffer);
        if (IsEventActionID(routedID)) {
            ZT_LOG(Common::ZT_LOG_DEBUG, "Receive ActionCallBack action:%d", routedID);
            pushTo(m_actionCallBackQueue, buffer, m_nActionEvent);
        } else {
            ZT_LOG(Common::ZT_LOG_DEBUG, "Receive service response action:%d", routedID);
            pushTo(m_responseQueue, buffer, m_nResponseEvent);
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

bool TransferClient::onReceiverStopped() {
    if (m_fTransferStarted.exchange(false)) {
        wakeWaiters();
        ZT_LOG(Common::ZT_LOG_WARNING, "TransferClient: Receiver stopped unexpectedly.");
        return true;
    }
    return false;
}

bool TransferClient::onNetException() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "onNetException called.");
    char* frame = new (std::nothrow) char[Frame::kHeaderSize];
    if (frame == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return false;
    }
    putLittleEndian32(frame, sizeof(int32_t));
    putLittleEndian32(frame + Frame::MSG_LENGTH_OFFSET, static_cast<uint32_t>(ACTION_SERVER_DISCONNECTED));
    pushTo(m_actionCallBackQueue, frame, m_nActionEvent);
    ZT_LOG(Common::ZT_LOG_DEBUG, "wait for NetException to be handled");
    // Until the callback has taken the event; a stop or destruction ends the wait, since the
    // callback thread is then leaving and would never take it.
    while (!m_actionCallBackQueue.empty() && m_fTransferStarted) {
        OSAbstractLayer::osal_sleep_ms(kNetExceptionPollMs);
    }
    if (m_fTransferStarted) {
        OSAbstractLayer::osal_sleep_ms(kNetExceptionSettleMs);
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "after waiting");
    if (m_fTransferStarted) {
        OSAbstractLayer::osal_sleep_ms(kNetExceptionTailMs);
    }
    return true;
}

unsigned int TransferClient::thread_actionCallBack(void* arg) {
    TransferClient* pThis = static_cast<TransferClient*>(arg);
    if (!enterOwnedThread(&pThis->m_actionCallBackThreadMutex, &pThis->m_callBackThreadStarting,
                          pThis->m_fTransferStarted)) {
        return 0;
    }

    size_t backOff = 0;
    while (pThis->m_fTransferStarted && pThis->m_fReceiverStarted) {
        OSAbstractLayer::osal_lock_mutex(&pThis->m_mutexActionCallBackFunction);
        char* frame = nullptr;
        if (pThis->m_fnActionReceived != nullptr && pThis->m_actionCallBackQueue.pop(&frame) && frame != nullptr) {
            ZT_LOG(Common::ZT_LOG_DEBUG, "before calling pThis->m_fnActionReceived");
            pThis->m_fnActionReceived(frame, pThis->m_pUserData);
            ZT_LOG(Common::ZT_LOG_DEBUG, "after calling pThis->m_fnActionReceived");
            OSAbstractLayer::osal_unlock_mutex(&pThis->m_mutexActionCallBackFunction);
            delete[] frame;
            backOff = 0;
            continue;
        }
        OSAbstractLayer::osal_unlock_mutex(&pThis->m_mutexActionCallBackFunction);
        OSAbstractLayer::osal_wait_event(pThis->m_nActionEvent, nextBackOff(backOff));
    }

    ZT_LOG(Common::ZT_LOG_INFO, "ActionCallBack thread fininsed.");
    pThis->m_fTransferStarted = false;
    ZT_LOG(Common::ZT_LOG_DEBUG, "before lock  m_mutexActionCallBackFunction");
    OSAbstractLayer::osal_lock_mutex(&pThis->m_mutexActionCallBackFunction);
    ZT_LOG(Common::ZT_LOG_DEBUG, "after lock  m_mutexActionCallBackFunction");
    if (pThis->m_fnActionReceived != nullptr) {
        // The null frame tells the owner that the link has ended.
        pThis->m_fnActionReceived(nullptr, pThis->m_pUserData);
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "before unlock  m_mutexActionCallBackFunction");
    OSAbstractLayer::osal_unlock_mutex(&pThis->m_mutexActionCallBackFunction);
    ZT_LOG(Common::ZT_LOG_DEBUG, "after unlock  m_mutexActionCallBackFunction");
    // The last touch of the object: whoever waits on this mutex may destroy it.
    OSAbstractLayer::osal_unlock_mutex(&pThis->m_actionCallBackThreadMutex);
    return 0;
}

void TransferClient::pushTo(Common::Queue<char*>& queue, char* frame, long consumerEvent) {
    queue.lock();
    const bool pushed = queue.push_unlock(frame);
    queue.unlock();
    if (!pushed) {
        delete[] frame;  // the queue could not grow; the frame is dropped rather than leaked
        return;
    }
    OSAbstractLayer::osal_signal_event(consumerEvent);
}

void TransferClient::wakeWaiters() {
    OSAbstractLayer::osal_signal_event(m_nActionEvent);
    OSAbstractLayer::osal_signal_event(m_nResponseEvent);
}

void TransferClient::freeQueued(Common::Queue<char*>& queue) {
    char* frame = nullptr;
    while (queue.pop(&frame)) {
        delete[] frame;
    }
}

void TransferClient::waitForCallBackThreadExit() {
    waitForLifetimeMutex(&m_actionCallBackThreadMutex);
}

}  // namespace Agent
}  // namespace PELK
