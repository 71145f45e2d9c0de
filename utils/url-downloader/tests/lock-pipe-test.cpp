// The lock utility and the processing pipe: the command channel every other
// part of the library stands on.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <unistd.h>

#include "request-ledger.h"

using namespace std::chrono_literals;

namespace {
url_downloader_error Op(pthread_mutex_t* m, bool* init, int op)
{
    return url_downloader_mutex_utility(m, init, (url_downloader_mutex_operation_t)op);
}
// True when another thread can take and give back the lock within 10 s.
template <typename Take>
bool FreeForOthers(Take take)
{
    auto other = std::async(std::launch::async, take);
    if (other.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "the lock stayed held";
        std::_Exit(1); // the blocked thread cannot be recovered
    }
    return other.get();
}

TEST(LockUtility, MisuseIsRefusedWithItsCodeAndLeavesTheLockFree)
{
    pthread_mutex_t m;
    bool init = false;
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED, Op(nullptr, &init, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED, Op(&m, nullptr, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_FALSE(_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, nullptr));
    EXPECT_TRUE(FreeForOthers([] { // a wrapper without an error word leaves its lock alone
        url_downloader_error e;
        return _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &e) &&
               _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &e);
    }));
#if !defined(__SANITIZE_THREAD__) // it stops at the deliberate misuse
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, Op(&m, &init, URL_DOWNLOADER_MUTEX_LOCK));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, Op(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED, Op(&m, &init, URL_DOWNLOADER_MUTEX_UNLOCK));
#endif
    Op(&m, &init, URL_DOWNLOADER_MUTEX_DESTROY);
}

class ProcessingPipe : public ::testing::Test {
protected:
    void SetUp() override
    {
        url_downloader_error e;
        ASSERT_TRUE(_url_downloader_create_pipe(&e));
    }
    void TearDown() override { _url_downloader_close_pipe(); }
};

TEST_F(ProcessingPipe, AFailedWriteReportsItsCodeAndReleasesTheLock)
{
    url_downloader_message_t m{};
    url_downloader_error e = URL_DOWNLOADER_ERROR_INVALID_URL;
    url_downloader_write_pipe(nullptr, &e);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_INVALID_URL, e) << "a refused call leaves the caller's word alone";
    _url_downloader_close_pipe(); // both ends gone: the write fails, so does the read
    url_downloader_write_pipe(&m, &e);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED, e);
    EXPECT_TRUE(FreeForOthers([] {
        url_downloader_error err;
        return _url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &err) &&
               _url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &err);
    }));
    _url_downloader_read_pipe(&m, &e);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_PIPE_READ_FAILED, e);
}
} // namespace
