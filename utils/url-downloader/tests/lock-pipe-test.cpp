// The lock utility and the processing pipe: the command channel every other
// part of the library stands on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log-capture.h"
#include "request-ledger.h"

using ud_test::kDebug;
using ud_test::kError;
using ud_test::LogCapture;

namespace {

const char* kUtil = "url_downloader_mutex_utility";

TEST(LockUtility, LazyInitRecursionAndDestroy)
{
    LogCapture log;
    pthread_mutex_t m;
    bool init = false;

    // LOCK on a pair that was never initialised brings it up first.
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_TRUE(init);
    // Recursive: the owner may take it again and must release it twice.
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK));
    auto other = std::async(std::launch::async, [&] {
        return url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_LOCK) == URL_DOWNLOADER_ERROR_NONE &&
               url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK) == URL_DOWNLOADER_ERROR_NONE;
    });
    EXPECT_EQ(std::future_status::timeout, other.wait_for(std::chrono::milliseconds(200)))
        << "another thread got the lock while it was still held once";
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK));
    ASSERT_EQ(std::future_status::ready, other.wait_for(std::chrono::seconds(10)));
    EXPECT_TRUE(other.get());

    // Unknown codes are logged and change nothing.
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE,
              url_downloader_mutex_utility(&m, &init, (url_downloader_mutex_operation_t)4));
    EXPECT_TRUE(log.Contains(kDebug, kUtil, "Mutex operation type 4 not handled"));

    // DESTROY is idempotent.
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_DESTROY));
    EXPECT_FALSE(init);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_DESTROY));
    EXPECT_EQ(1u, log.Count(kError, kUtil, "mutex not intialised, so no need to destroy"));

    // An unknown code on a fresh pair still initialises it; DESTROY it again.
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE,
              url_downloader_mutex_utility(&m, &init, (url_downloader_mutex_operation_t)-1));
    EXPECT_TRUE(init);
    url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_DESTROY);
}

TEST(LockUtility, ConcurrentFirstUseInitialisesOnceAndExcludes)
{
    static pthread_mutex_t m;
    static bool init = false;
    static long counter = 0; // plain on purpose: only the lock protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                ASSERT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_LOCK));
                ++counter;
                ASSERT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK));
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(8 * 2000, counter);
    url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_DESTROY);
}

TEST(LockUtility, NullArgumentsAreRefused)
{
    LogCapture log;
    pthread_mutex_t m;
    bool init = false;
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED, url_downloader_mutex_utility(nullptr, &init, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED, url_downloader_mutex_utility(&m, nullptr, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_EQ(2u, log.Count(kError, kUtil, "mutex/mutex_init is NULL, so returning!"));
    EXPECT_FALSE(init);

    // A wrapper without an error word does not touch its lock: another
    // thread can still take it at once.
    EXPECT_FALSE(_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, nullptr));
    EXPECT_FALSE(_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, nullptr));
    EXPECT_TRUE(log.Contains(kError, "_url_downloader_list_mutex_operation", "Provided error-code is NULL"));
    EXPECT_TRUE(log.Contains(kError, "_url_downloader_pipe_write_mutex_operation", "Provided error-code is NULL"));
    auto other = std::async(std::launch::async, [] {
        url_downloader_error e = URL_DOWNLOADER_ERROR_PIPE_READ_FAILED;
        bool ok = _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &e) && e == URL_DOWNLOADER_ERROR_NONE;
        return ok && _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &e);
    });
    ASSERT_EQ(std::future_status::ready, other.wait_for(std::chrono::seconds(10)));
    EXPECT_TRUE(other.get());
}

TEST(LockUtility, ReleasingAnUnheldLockIsReported)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer stops at the deliberate misuse";
#endif
    LogCapture log;
    pthread_mutex_t m;
    bool init = false;
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED, url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK));
    EXPECT_TRUE(init);
    url_downloader_mutex_utility(&m, &init, URL_DOWNLOADER_MUTEX_DESTROY);

    // The wrapper passes the code on and names its lock.
    url_downloader_error e;
    EXPECT_FALSE(_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &e));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED, e);
    EXPECT_TRUE(log.Contains(kError, "_url_downloader_pipe_write_mutex_operation",
                             "mutex operation 2 on pipe_write_lock failed! error-code: 13"));
}

class ProcessingPipe : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, pipe(url_downloader_pipe_fd)); }
    void TearDown() override
    {
        for (int& fd : url_downloader_pipe_fd) {
            if (fd >= 0)
                close(fd);
            fd = -1;
        }
    }
};

TEST_F(ProcessingPipe, ConcurrentWritersDeliverWholeOrderedRecords)
{
    constexpr int kThreads = 8;
    constexpr intptr_t kPerThread = 3000; // several times the pipe's capacity
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t, &failures] {
            for (intptr_t i = 0; i < kPerThread; ++i) {
                url_downloader_message_t m{};
                m.type = t + 1;
                m.service = (url_downloader_h)(i + 1);
                m.api = (url_downloader_api_h)((i + 1) * 7 + t);
                m.info = (url_downloader_response_info_t*)(intptr_t)(~i);
                url_downloader_error e = URL_DOWNLOADER_ERROR_PIPE_READ_FAILED;
                url_downloader_write_pipe(&m, &e);
                if (e != URL_DOWNLOADER_ERROR_NONE)
                    ++failures;
            }
        });
    }
    std::vector<intptr_t> next(kThreads, 1);
    int bad = 0;
    for (intptr_t n = 0; n < kThreads * kPerThread; ++n) {
        url_downloader_message_t m;
        url_downloader_error e;
        _url_downloader_read_pipe(&m, &e);
        ASSERT_EQ(URL_DOWNLOADER_ERROR_NONE, e);
        int t = m.type - 1;
        ASSERT_TRUE(t >= 0 && t < kThreads) << "torn record";
        intptr_t i = (intptr_t)m.service;
        // Fields of one record belong together, and one writer's records keep their order.
        if (m.reserved != 0 || (intptr_t)m.api != i * 7 + t || (intptr_t)m.info != ~(i - 1) || i != next[t])
            ++bad;
        next[t] = i + 1;
    }
    for (auto& w : writers)
        w.join();
    EXPECT_EQ(0, bad);
    EXPECT_EQ(0, failures.load());
}

TEST_F(ProcessingPipe, FailedWriteAndReadReportTheirCodes)
{
    LogCapture log;
    url_downloader_message_t m{};
    url_downloader_error e = URL_DOWNLOADER_ERROR_INVALID_URL;

    url_downloader_write_pipe(nullptr, &e);
    url_downloader_write_pipe(&m, nullptr);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_INVALID_URL, e) << "a refused call leaves the caller's word alone";
    EXPECT_EQ(2u, log.Count(kError, "url_downloader_write_pipe", "Invalid input param"));

    close(url_downloader_pipe_fd[1]);
    url_downloader_pipe_fd[1] = -1;
    url_downloader_write_pipe(&m, &e);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED, e);
    EXPECT_TRUE(log.Contains(kDebug, "url_downloader_write_pipe", "Writing to pipe failed, bytes=[-1]\n"));
    // The lock was released after the failed write.
    EXPECT_EQ(URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED, _url_downloader_send_message(URL_DOWNLOADER_MSG_NONE, nullptr, nullptr, nullptr));

    // All writers gone: the reader sees end of file, not a message.
    _url_downloader_read_pipe(&m, &e);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_PIPE_READ_FAILED, e);
    EXPECT_TRUE(log.Contains(kDebug, "_url_downloader_read_pipe", "Error in reading message 0\n"));
}

} // namespace
