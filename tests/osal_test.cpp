#include "CommonLib/OSAL.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>

#include "CommonLib/OSALDetail.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using Osal = PELK::Common::OSAbstractLayer;

// ThreadSanitizer reports a deliberately bad unlock as a fault, so those cases run without it.
#if defined(__SANITIZE_THREAD__)
#define PELK_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PELK_UNDER_TSAN 1
#endif
#endif

namespace {

struct Handoff {
    sem_t sem;
    std::atomic<int> value{0};
};

unsigned int storeAndPost(void* raw) {
    Handoff* handoff = static_cast<Handoff*>(raw);
    Osal::osal_sleep_ms(30);
    handoff->value.store(42);
    Osal::osal_unlock_cond(&handoff->sem);
    return 0;
}

}  // namespace

TEST(OsalThreadTest, ThreadRunsWithItsArgumentAndAnUnlimitedWaitSeesItsPost) {
    Handoff handoff;
    ASSERT_EQ(0, Osal::osal_init_cond(&handoff.sem));
    long thread = 0;
    ASSERT_EQ(0, Osal::osal_create_thread(&thread, storeAndPost, &handoff));
    EXPECT_EQ(0, Osal::osal_lock_cond(&handoff.sem, -1));  // the thread posts only after 30 ms
    EXPECT_EQ(42, handoff.value.load());
    EXPECT_EQ(0, Osal::osal_join_thread(&thread));
    Osal::osal_destroy_cond(&handoff.sem);

    pelktest::LogCapture log;
    EXPECT_EQ(1, Osal::osal_create_thread(nullptr, storeAndPost, &handoff));
    EXPECT_EQ(1, Osal::osal_create_thread(&thread, nullptr, &handoff));
    EXPECT_EQ(2u, log.count("pthread_create fail! errno=22!"));
    EXPECT_EQ(1, Osal::osal_join_thread(nullptr));
    EXPECT_EQ(1u, log.count("pthread_join fail! errno=22!"));
}

TEST(OsalLockTest, LockAlwaysReportsSuccessAndAFailedUnlockIsLogged) {
    pelktest::LogCapture log;
    EXPECT_EQ(0, Osal::osal_lock_mutex(nullptr));
    EXPECT_EQ(1, Osal::osal_unlock_mutex(nullptr));
    EXPECT_EQ(1u, log.count("osal_unlock_mutex fail for mutex:"));
#if !defined(PELK_UNDER_TSAN)
    // An error-checking mutex lets pthreads report what a default one leaves undefined.
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    EXPECT_EQ(1, Osal::osal_unlock_mutex(&mutex));
    EXPECT_EQ(2u, log.count("osal_unlock_mutex fail for mutex:"));
    EXPECT_EQ(0, Osal::osal_lock_mutex(&mutex));
    EXPECT_EQ(0, Osal::osal_lock_mutex(&mutex));  // EDEADLK from pthreads, not passed on
    EXPECT_EQ(0, Osal::osal_unlock_mutex(&mutex));
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
#endif
}

TEST(OsalLockTest, SemaphoreWaitTimesOutOrTakesACount) {
    sem_t sem;
    ASSERT_EQ(0, Osal::osal_init_cond(&sem));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(2, Osal::osal_lock_cond_ms(&sem, 0));
    EXPECT_EQ(2, Osal::osal_lock_cond(&sem, -3000000));  // long past: no wrap into a wait of days
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(2, Osal::osal_lock_cond_ms(&sem, 30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
    ASSERT_EQ(0, Osal::osal_unlock_cond(&sem));
    EXPECT_EQ(0, Osal::osal_lock_cond_ms(&sem, 0));
    EXPECT_EQ(0, Osal::osal_destroy_cond(&sem));

    pelktest::LogCapture log;
    EXPECT_EQ(1, Osal::osal_init_cond(nullptr));
    EXPECT_EQ(1, Osal::osal_unlock_cond(nullptr));
    EXPECT_EQ(1, Osal::osal_lock_cond(nullptr, -1));
    EXPECT_EQ(1, Osal::osal_lock_cond_ms(nullptr, 10));
    for (const char* line : {"[OSAL]Sem_init Error\n", "[OSAL] Died Cond Semaphore\n", "[OSAL]osal_lock_cond-error\n",
                             "osal_lock_cond_ms fail when sem_timedwait.."}) {
        EXPECT_EQ(1u, log.count(line)) << line;
    }
}

TEST(OsalLockTest, DeadlineCarriesOnlyWhenNanosecondsExceedOneSecond) {
    const struct {
        timespec now;
        int ms;
        timespec expected;
    } rows[] = {
        {{10, 0}, 1500, {11, 500000000}},          {{10, 999000000}, 1, {10, 1000000000}},
        {{10, 500000000}, 2500, {12, 1000000000}}, {{10, 999000000}, 2, {11, 1000000}},
        {{10, 999999999}, 999, {11, 998999999}},
    };
    for (const auto& row : rows) {
        const timespec deadline = PELK::Common::detail::deadlineAfterMs(row.now, row.ms);
        EXPECT_EQ(row.expected.tv_sec, deadline.tv_sec) << row.ms;
        EXPECT_EQ(row.expected.tv_nsec, deadline.tv_nsec) << row.ms;
    }
    // A whole second of nanoseconds is an invalid deadline: the wait fails at once as an error.
    sem_t sem;
    ASSERT_EQ(0, Osal::osal_init_cond(&sem));
    const timespec deadline = PELK::Common::detail::deadlineAfterMs({time(nullptr) + 60, 999000000}, 1);
    EXPECT_EQ(-1, sem_timedwait(&sem, &deadline));
    EXPECT_EQ(EINVAL, errno);
    Osal::osal_destroy_cond(&sem);
}

TEST(OsalTextTest, WideningAndNarrowingInEitherNaming) {
    pelktest::LogCapture log;
    for (auto widen : {&Osal::osal_local_to_unicode, &Osal::osal_utf8_to_unicode}) {
        wchar_t wide[8] = {L'?', L'?', L'?', L'?'};
        EXPECT_EQ(0, widen("a\x80\xff", wide, 4));
        EXPECT_EQ((std::wstring{L'a', 0x80, 0xff}), std::wstring(wide));  // zero-extended bytes
        EXPECT_EQ(1, widen("", wide, 8));
        EXPECT_EQ(1, widen("abcd", wide, 4));
        EXPECT_EQ(1, widen(nullptr, wide, 8));
    }
    for (auto narrow : {&Osal::osal_unicode_to_local, &Osal::osal_unicode_to_utf8}) {
        char zeroed[8] = {};
        EXPECT_EQ(1, narrow(L"abc", zeroed, 8));
        EXPECT_STREQ("", zeroed);
        char filled[8] = "xxxxxxx";
        EXPECT_EQ(0, narrow(L"ab\x141", filled, 8));
        EXPECT_STREQ("abA", filled);  // the low eight bits of each character
        char partly[8] = {'x', 'x', '\0', 'x'};
        EXPECT_EQ(0, narrow(L"abc", partly, 8));
        EXPECT_STREQ("ab", partly);  // stops at the terminator the buffer held before
        EXPECT_EQ(1, narrow(L"abc", filled, 3));
    }
    for (auto convert : {&Osal::osal_local_to_utf8, &Osal::osal_utf8_to_local}) {
        char buffer[8] = "xxxxxxx";
        char* dst = buffer;
        char* none = nullptr;
        int max = 8;
        EXPECT_EQ(0, convert("abc", dst, max));
        EXPECT_STREQ("abc", buffer);
        EXPECT_EQ(1, convert("abc", none, max));
        EXPECT_EQ(1, convert(std::string(300, 'a').c_str(), dst, max));
    }
    EXPECT_EQ(2u, log.count("Cannot convert! nMaxCharNum=4, need:5"));
    EXPECT_EQ(2u, log.count("Cannot convert! nMaxCharNum=3, need:4"));
    EXPECT_EQ(2u, log.count("Cannot convert! nMaxCharNum=260, need:301"));
}

// Runs in <temp>/x/y and goes back to the original directory afterwards.
class OsalPathTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, getcwd(m_original, sizeof(m_original)));
        ASSERT_EQ(0, mkdir(m_dir.file("x").c_str(), 0700));
        ASSERT_EQ(0, mkdir(m_dir.file("x/y").c_str(), 0700));
        char* real = realpath(m_dir.path().c_str(), nullptr);  // as getcwd will report it
        ASSERT_NE(nullptr, real);
        m_root = real;
        free(real);
        ASSERT_EQ(0, Osal::osal_setCurrentPath(m_dir.file("x/y").c_str()));
    }
    void TearDown() override { Osal::osal_setCurrentPath(m_original); }

    pelktest::TempDir m_dir;
    char m_original[PATH_MAX];
    std::string m_root;
};

TEST_F(OsalPathTest, RelativePathsResolveAgainstTheCurrentDirectory) {
    EXPECT_EQ(m_root + "/x/y", Osal::osal_getProgramPath());
    std::string toRoot = "../../";  // out of x/y, then one step per component of m_root
    for (size_t at = m_root.find('/'); at != std::string::npos; at = m_root.find('/', at + 1)) {
        toRoot += "../";
    }
    const struct {
        std::string path;
        std::string expected;
    } rows[] = {
        {"../a", m_root + "/x/a"},  {"./a", m_root + "/x/y/a"},    {"a/b", m_root + "/x/y/a/b"},
        {"../../a", m_root + "/a"}, {"./.././a", m_root + "/x/a"}, {"..\\a", m_root + "/x/a"},
        {".a", ""},                 {"..a", ""},                   {"\\x", "\\x"},
        {"/abs", "/abs"},           {toRoot + "a", "/a"},          {"../" + toRoot + "a", ""},
    };
    pelktest::LogCapture log;
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, Osal::osal_getAbsolutePath(row.path.c_str())) << row.path;
    }
    EXPECT_EQ("", Osal::osal_getAbsolutePath(nullptr));
    EXPECT_TRUE(log.contains("Invalid path:.a, currentPath=" + m_root + "/x/y"));
    EXPECT_TRUE(log.contains("Invalid path:..a"));
    EXPECT_TRUE(log.contains("Invalid path:../" + toRoot + "a, currentPath="));

    ASSERT_EQ(0, Osal::osal_setCurrentPath(".."));  // the cached directory follows
    EXPECT_EQ(m_root + "/x/a", Osal::osal_getAbsolutePath("./a"));
    EXPECT_NE(0, Osal::osal_setCurrentPath(nullptr));
}

TEST_F(OsalPathTest, FileTypeAndNumbers) {
    m_dir.write("x/f", "1");
    int type = 0;
    EXPECT_EQ(0, Osal::osal_file_type("../f", &type));
    EXPECT_EQ(3, type);
    EXPECT_EQ(0, Osal::osal_file_type(m_dir.path().c_str(), &type));
    EXPECT_EQ(4, type);
    type = 0;
    EXPECT_EQ(1, Osal::osal_file_type("missing", &type));
    EXPECT_EQ(1, Osal::osal_file_type(nullptr, &type));
    EXPECT_EQ(1, Osal::osal_file_type("../f", nullptr));
    EXPECT_EQ(0, type);

    EXPECT_EQ(INT64_MAX, Osal::osal_atoi64("9223372036854775807"));
    EXPECT_EQ(INT64_MIN, Osal::osal_atoi64("-9223372036854775808"));
    EXPECT_EQ(-42, Osal::osal_atoi64(" -42abc"));
    EXPECT_EQ(0, Osal::osal_atoi64(nullptr));
}
