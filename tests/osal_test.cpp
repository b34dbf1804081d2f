// The OS layer's threads, semaphores, mutexes, text conversions, paths and file types.
#include "CommonLib/OSAL.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "CommonLib/OSALDetail.h"
#include "support/TempDir.h"

using Osal = PELK::Common::OSAbstractLayer;
using Result = std::pair<int, std::string>;  // a call's result and the text it left

TEST(OsalSyncTest, ThreadPostsWhileSemaphoreWaitsTimeOutOrTakeACount) {
    auto postLater = [](void* sem) -> unsigned int {  // posts the semaphore 30 ms after it starts
        Osal::osal_sleep_ms(30);
        return Osal::osal_unlock_cond(static_cast<sem_t*>(sem));
    };
    sem_t sem;
    ASSERT_EQ(0, Osal::osal_init_cond(&sem));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(2, Osal::osal_lock_cond_ms(&sem, 0));
    EXPECT_EQ(2, Osal::osal_lock_cond(&sem, -3000000));  // long past: no wrap into a wait of days
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(2, Osal::osal_lock_cond_ms(&sem, 30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
    long thread = 0;
    ASSERT_EQ(0, Osal::osal_create_thread(&thread, postLater, &sem));
    EXPECT_EQ(0, Osal::osal_lock_cond(&sem, -1));  // waits the thread's 30 ms
    EXPECT_EQ(0, Osal::osal_join_thread(&thread));
    ASSERT_EQ(0, Osal::osal_unlock_cond(&sem));
    EXPECT_EQ(0, Osal::osal_lock_cond_ms(&sem, 0));
    EXPECT_EQ(0, Osal::osal_destroy_cond(&sem));
}

TEST(OsalSyncTest, FailuresReturnOneButLockingAlwaysSucceeds) {
    long thread = 0;
    const std::vector<int> results = {
        Osal::osal_create_thread(nullptr, [](void*) { return 0u; }, nullptr),
        Osal::osal_create_thread(&thread, nullptr, nullptr),
        Osal::osal_join_thread(nullptr), Osal::osal_lock_mutex(nullptr), Osal::osal_unlock_mutex(nullptr),
        Osal::osal_init_cond(nullptr), Osal::osal_unlock_cond(nullptr), Osal::osal_lock_cond(nullptr, -1),
        Osal::osal_lock_cond_ms(nullptr, 10)};
    EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 0, 1, 1, 1, 1, 1}));
#if !defined(__SANITIZE_THREAD__)  // ThreadSanitizer rightly reports these deliberate misuses
    // An error-checking mutex lets pthreads report what a default one leaves undefined.
    pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    EXPECT_EQ(1, Osal::osal_unlock_mutex(&mutex));
    EXPECT_EQ(0, Osal::osal_lock_mutex(&mutex));
    EXPECT_EQ(0, Osal::osal_lock_mutex(&mutex));  // EDEADLK from pthreads, not passed on
    EXPECT_EQ(0, Osal::osal_unlock_mutex(&mutex));
    pthread_mutex_destroy(&mutex);
#endif
}

TEST(OsalSyncTest, DeadlineCarriesOnlyWhenNanosecondsExceedOneSecond) {
    const struct { timespec now; int ms; timespec expected; } rows[] = {
        {{10, 0}, 1500, {11, 500000000}}, {{10, 999000000}, 1, {10, 1000000000}},
        {{10, 999000000}, 2, {11, 1000000}}, {{10, 999999999}, 999, {11, 998999999}}};
    for (const auto& row : rows) {
        const timespec got = PELK::Common::detail::deadlineAfterMs(row.now, row.ms);
        EXPECT_EQ(std::make_pair(row.expected.tv_sec, row.expected.tv_nsec), std::make_pair(got.tv_sec, got.tv_nsec));
    }
}

TEST(OsalTextTest, WideningAndNarrowingInEitherNaming) {
    for (auto widen : {&Osal::osal_local_to_unicode, &Osal::osal_utf8_to_unicode}) {
        wchar_t wide[8] = {L'?', L'?', L'?', L'?'};
        EXPECT_EQ(0, widen("a\x80\xff", wide, 4));
        EXPECT_EQ((std::wstring{L'a', 0x80, 0xff}), std::wstring(wide));  // zero-extended bytes
        const std::vector<int> refused = {widen("", wide, 8), widen("abcd", wide, 4), widen(nullptr, wide, 8)};
        EXPECT_EQ(refused, (std::vector<int>{1, 1, 1}));
    }
    for (auto narrow : {&Osal::osal_unicode_to_local, &Osal::osal_unicode_to_utf8}) {
        char zeroed[8] = {}, filled[8] = "xxxxxxx", partly[8] = {'x', 'x', '\0', 'x'};
        EXPECT_EQ((Result{1, ""}), (Result{narrow(L"abc", zeroed, 8), zeroed}));
        EXPECT_EQ((Result{0, "ab\xC1"}), (Result{narrow(L"ab\x1C1", filled, 8), filled}));  // the low eight bits
        EXPECT_EQ((Result{0, "ab"}), (Result{narrow(L"abc", partly, 8), partly}));  // up to the old terminator
        EXPECT_EQ(1, narrow(L"abc", filled, 3));
    }
    for (auto convert : {&Osal::osal_local_to_utf8, &Osal::osal_utf8_to_local}) {
        char buffer[8] = "xxxxxxx";
        char *dst = buffer, *none = nullptr;
        int max = 8;
        EXPECT_EQ((Result{0, "abc"}), (Result{convert("abc", dst, max), buffer}));
        EXPECT_EQ(1, convert("abc", none, max));
        EXPECT_EQ(1, convert(std::string(300, 'a').c_str(), dst, max));
    }
}

TEST(OsalPathTest, PathsResolveAgainstTheCachedCurrentDirectoryAndFilesHaveTypes) {
    pelktest::TempDir dir;
    char original[PATH_MAX], real[PATH_MAX];
    ASSERT_NE(nullptr, getcwd(original, sizeof(original)));
    ASSERT_EQ(0, mkdir(dir.file("x").c_str(), 0700));
    ASSERT_EQ(0, mkdir(dir.file("x/y").c_str(), 0700));
    ASSERT_NE(nullptr, realpath(dir.path().c_str(), real));  // the folder as getcwd names it
    const std::string root = real;
    ASSERT_EQ(0, Osal::osal_setCurrentPath(dir.file("x/y").c_str()));
    EXPECT_EQ(root + "/x/y", Osal::osal_getProgramPath());
    const std::pair<std::string, std::string> rows[] = {
        {"../a", root + "/x/a"}, {"./a", root + "/x/y/a"}, {"a/b", root + "/x/y/a/b"}, {"../../a", root + "/a"},
        {"..\\a", root + "/x/a"}, {".a", ""}, {"..a", ""}, {"\\x", "\\x"}, {"/abs", "/abs"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.second, Osal::osal_getAbsolutePath(row.first.c_str())) << row.first;
    EXPECT_EQ("", Osal::osal_getAbsolutePath(nullptr));

    EXPECT_EQ(0, Osal::osal_setCurrentPath("/"));  // the cache follows; "/" loses its trailing separator
    EXPECT_EQ("/a", Osal::osal_getAbsolutePath("./a"));
    EXPECT_EQ("", Osal::osal_getAbsolutePath("../a"));
    EXPECT_NE(0, Osal::osal_setCurrentPath(nullptr));
    EXPECT_EQ(0, Osal::osal_setCurrentPath(original));

    const std::string file = dir.write("f", "1"), missing = dir.file("missing");
    int type = 0;
    const std::vector<std::pair<int, int>> results = {  // result and type after each call
        {Osal::osal_file_type(file.c_str(), &type), type}, {Osal::osal_file_type(dir.path().c_str(), &type), type},
        {Osal::osal_file_type(missing.c_str(), &type), type}, {Osal::osal_file_type(nullptr, &type), type},
        {Osal::osal_file_type(file.c_str(), nullptr), type}};
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 3}, {0, 4}, {1, 4}, {1, 4}, {1, 4}}), results);

    EXPECT_EQ(INT64_MAX, Osal::osal_atoi64("9223372036854775807"));
    EXPECT_EQ(INT64_MIN, Osal::osal_atoi64("-9223372036854775808"));
    EXPECT_EQ(-42, Osal::osal_atoi64(" -42abc"));
    EXPECT_EQ(0, Osal::osal_atoi64(nullptr));
}
