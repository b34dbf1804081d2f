// The one layer between the library and the OS: threads, mutexes, counting semaphores, sockets
// with time-outs, text conversions and paths. Every function is static and keeps no state of its
// own (except Inet_ntoa's lock and the cached current directory), so any thread may call any of
// them; callers serialise the use of one socket themselves.
//
// Results: 0 success and 1 failure unless a function says otherwise. Socket functions return 1
// done, 0 time-out and a negative value on error.
#ifndef PELK_COMMONLIB_OSAL_H
#define PELK_COMMONLIB_OSAL_H

#include <netinet/in.h>
#include <pthread.h>
#include <semaphore.h>

#include <cstdint>
#include <string>

#define OSAL_INVALID_SOCKET (-1)

namespace PELK {
namespace Common {

class OSAbstractLayer {
public:
    // ---- Threads, mutexes, semaphores ----------------------------------------------------

    // Starts fn(arg) on a new joinable thread and stores its handle in *thread.
    static int osal_create_thread(long* thread, unsigned int (*fn)(void*), void* arg);
    static int osal_join_thread(long* thread);
    // Does nothing: the library's threads detach themselves.
    static void osal_destroy_thread(long* thread);
    // Detaches the calling thread, so that nobody needs to join it.
    static int osal_detach_current_thread();
    // The calling thread's handle, comparable with the handles of other threads.
    static long osal_current_thread_id();
    static void osal_sleep_ms(int ms);
    // Seconds of a monotonic clock: immune to wall-clock changes, for measuring time-outs.
    static long osal_monotonic_seconds();
    // Milliseconds of the same monotonic clock.
    static int64_t osal_monotonic_ms();
    // The wall-clock time as whole seconds since the epoch and the milliseconds within them.
    static void osal_wall_clock(long* seconds, int* milliseconds);

    // Default, non-recursive mutexes: locking one that the thread holds already blocks.
    static int osal_init_mutex(pthread_mutex_t* mutex);
    static int osal_destroy_mutex(pthread_mutex_t* mutex);
    // Always 0, whatever the lock did: callers' failure branches are dead; kept deliberately.
    static int osal_lock_mutex(pthread_mutex_t* mutex);
    static int osal_unlock_mutex(pthread_mutex_t* mutex);
    // 0 when the mutex was free and is now held, 1 when another holder has it (no waiting).
    static int osal_trylock_mutex(pthread_mutex_t* mutex);

    // Condition variables on the monotonic clock, so wall-clock changes cannot stretch a wait.
    // A wait may also end without a signal: waiters check their state again after every wait.
    static int osal_init_condition(pthread_cond_t* cond);
    static int osal_destroy_condition(pthread_cond_t* cond);
    // REQUIRES: the caller holds mutex, which the wait releases and takes again.
    // 0 woken, 2 timed out; ms == -1 waits without limit.
    static int osal_wait_condition(pthread_cond_t* cond, pthread_mutex_t* mutex, int ms);
    static void osal_signal_condition(pthread_cond_t* cond);
    static void osal_broadcast_condition(pthread_cond_t* cond);

    // A "cond" here is a process-private counting semaphore with initial count 0: locking
    // takes one count (waiting for it), unlocking posts one.
    static int osal_init_cond(sem_t* sem);
    static int osal_destroy_cond(sem_t* sem);
    static int osal_unlock_cond(sem_t* sem);
    // seconds == -1 waits without limit. Results as osal_lock_cond_ms.
    static int osal_lock_cond(sem_t* sem, int seconds);
    // 0 signalled, 2 timed out, 1 error; ms == -1 waits without limit. The deadline is taken
    // on the real-time clock.
    static int osal_lock_cond_ms(sem_t* sem, int ms);

    // ---- Sockets (a socket is a long; OSAL_INVALID_SOCKET when closed) ----------------------
    // Time-outs are in seconds; a negative time-out waits without limit.

    // >0 readable, 0 time-out, <0 error (-1 for an invalid socket).
    static int osal_socketReadable(long sock, int seconds, int microseconds);
    // >0 writable, 0 time-out, <0 error (-1 for an invalid socket).
    static int osal_socketWritable(long sock, int seconds);
    // False once the peer has closed or reset the connection; pending input is not consumed.
    static bool osal_socketAvailable(long sock);
    static bool osal_socketConnected(long sock, int seconds);
    // Sends the whole buffer: 1 all sent, 0 time-out (*sent = bytes sent so far), -1 error or
    // peer gone. Checks the peer before every step. Never raises SIGPIPE.
    static int osal_sendn(long sock, const char* buffer, int length, int flags, int seconds, int* sent);
    // As osal_sendn without the peer check.
    static int osal_simple_sendn(long sock, const char* buffer, int length, int flags, int seconds, int* sent);
    // Receives exactly length bytes: 1 done, 0 time-out (*received = bytes so far), -1 peer
    // closed, -2 error or invalid socket.
    static int osal_recvn(long sock, char* buffer, int length, int flags, int seconds, int* received);
    // 0 with *open set, 1 on bad input or when no socket can be created.
    static int osal_checkPortOpen(const char* host, int port, bool* open);
    static int osal_checkLocalPortOpen(int port, bool* open);
    // A new IPv4 stream socket (close-on-exec), or OSAL_INVALID_SOCKET with errno set.
    static long osal_create_tcp_socket();
    // Blocking connect to a dotted IPv4 address: 0, or 1 with errno set.
    static int osal_connect(long sock, const char* host, int port);
    static int osal_close_socket(long sock);
    // Ends both directions of a connection without releasing the descriptor: the peer sees the
    // close, and every wait or receive in progress on the socket returns at once.
    static int osal_shutdown_socket(long sock);
    // The IPv4 address of a dotted text in network byte order, as the system's conversion gives
    // it (all ones for text it cannot read).
    static uint32_t osal_inet_addr(const char* text);
    // Sends the whole buffer, trying at once and waiting for room only while the socket is
    // full, for at most `seconds` in all: 1 all sent, 0 time-out, -1 error or peer gone.
    // Never raises SIGPIPE. *sent, when given, receives the bytes that went out.
    static int osal_send_all(long sock, const char* buffer, int length, int seconds, int* sent = nullptr);
    // One receive of whatever is waiting, at most length bytes, retried when a signal
    // interrupts it: >0 bytes received, 0 the peer closed, -1 with errno set (EAGAIN or
    // EWOULDBLOCK: nothing came within the socket's receive time-out or, with dontWait, nothing
    // was waiting).
    static int osal_recv_some(long sock, char* buffer, int length, bool dontWait);
    // Bounds every blocking receive on the socket to ms milliseconds.
    static int osal_set_receive_timeout(long sock, int ms);

    // ---- Text and paths ------------------------------------------------------------------
    // Byte-for-byte widening and narrowing, not a character-set conversion. maxChars counts
    // the destination's characters including the terminator.
    static int osal_local_to_unicode(const char* src, wchar_t* dst, int maxChars);
    static int osal_utf8_to_unicode(const char* src, wchar_t* dst, int maxChars);
    // Narrowing stops where the destination held a 0 byte before the call: pre-fill it.
    static int osal_unicode_to_local(const wchar_t* src, char* dst, int maxChars);
    static int osal_unicode_to_utf8(const wchar_t* src, char* dst, int maxChars);
    static int osal_local_to_utf8(const char* src, char*& dst, int& maxChars);
    static int osal_utf8_to_local(const char* src, char*& dst, int& maxChars);

    // Resolves "./" and "../" prefixes against the current directory; "" when it cannot.
    static std::string osal_getAbsolutePath(const char* path);
    // The current directory, cached; points at a static 260-byte buffer; null if unknown.
    static const char* osal_getProgramPath();
    // Clears the cached directory, then changes to path; chdir's result.
    static int osal_setCurrentPath(const char* path);
    // *type = 4 for a directory, 3 otherwise.
    static int osal_file_type(const char* path, int* type);
    static int64_t osal_atoi64(const char* text);
};

// Holds a mutex for one scope: locked by the constructor, unlocked by the destructor on every
// path. Not recursive, like the mutex it holds. A null mutex makes a guard that holds nothing,
// for a scope whose thread may already hold the lock.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t* mutex) : m_pMutex(mutex) {
        if (m_pMutex != nullptr) {
            OSAbstractLayer::osal_lock_mutex(m_pMutex);
        }
    }
    // Takes the mutex only if no one holds it; owns() tells whether it did.
    struct TryOnly {};
    MutexGuard(pthread_mutex_t* mutex, TryOnly)
        : m_pMutex(mutex != nullptr && OSAbstractLayer::osal_trylock_mutex(mutex) == 0 ? mutex : nullptr) {}
    bool owns() const { return m_pMutex != nullptr; }
    ~MutexGuard() {
        if (m_pMutex != nullptr) {
            OSAbstractLayer::osal_unlock_mutex(m_pMutex);
        }
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t* m_pMutex;
};

// Dotted text of an IPv4 address; safe from any thread.
std::string Inet_ntoa(struct in_addr address);

}  // namespace Common
}  // namespace PELK

#endif  // PELK_COMMONLIB_OSAL_H
