// The request list and the hand-over of results to the client's main loop.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "log-capture.h"
#include "main-loop.h"
#include "url-downloader-private.h"

using namespace std::chrono_literals;
using ud_test::Deliveries;
using ud_test::kDebug;
using ud_test::kError;
using ud_test::LogCapture;

namespace {

class RequestList : public ::testing::Test {
protected:
    void SetUp() override { Deliveries::Clear(); }
    void TearDown() override
    {
        // Whatever a test left listed is freed here, records first.
        for (GList* n = url_downloader_request_list; n != nullptr; n = n->next) {
            auto* e = (url_downloader_request_entry_t*)n->data;
            if (e->api != nullptr)
                _url_downloader_free_api(e->api);
        }
        for (GList* n = url_downloader_request_list; n != nullptr; n = n->next) {
            auto* e = (url_downloader_request_entry_t*)n->data;
            if (e->api == nullptr)
                _url_downloader_free_service(e->service);
        }
        g_list_free_full(url_downloader_request_list, free);
        url_downloader_request_list = nullptr;
    }

    url_downloader_service_t* Service(url_downloader_callback_t cb = Deliveries::Callback)
    {
        auto* s = (url_downloader_service_t*)calloc(1, sizeof(url_downloader_service_t));
        s->callback = cb;
        s->appName = strdup("app");
        url_downloader_error e;
        EXPECT_TRUE(_url_downloader_prepend_request_list(s, nullptr, &e));
        EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, e);
        return s;
    }

    // Removes the newest entry as a sweep would.
    static void DropHead()
    {
        void* entry = url_downloader_request_list->data;
        url_downloader_request_list = g_list_remove(url_downloader_request_list, entry);
        free(entry);
    }

    url_downloader_api_t* Request(url_downloader_service_t* s, const char* path, int outcome = 0)
    {
        auto* a = (url_downloader_api_t*)calloc(1, sizeof(url_downloader_api_t));
        a->service = s;
        a->filePath = path ? strdup(path) : nullptr;
        a->url = strdup("http://127.0.0.1/x");
        a->userData = this;
        a->error = outcome;
        url_downloader_error e;
        EXPECT_TRUE(_url_downloader_prepend_request_list(s, a, &e));
        return a;
    }
};

TEST_F(RequestList, EntriesAreNewestFirstAndHandlesValidByMembership)
{
    LogCapture log;
    auto* s1 = Service();
    auto* s2 = Service();
    auto* a1 = Request(s1, "/tmp/a1");
    auto* a2 = Request(s2, "/tmp/a2");
    auto* a3 = Request(s1, "/tmp/a3");

    ASSERT_EQ(5u, g_list_length(url_downloader_request_list));
    const void* expected[][2] = {{s1, a3}, {s2, a2}, {s1, a1}, {s2, nullptr}, {s1, nullptr}};
    int i = 0;
    for (GList* n = url_downloader_request_list; n != nullptr; n = n->next, ++i) {
        auto* e = (url_downloader_request_entry_t*)n->data;
        EXPECT_EQ(expected[i][0], e->service) << "entry " << i;
        EXPECT_EQ(expected[i][1], e->api) << "entry " << i;
    }
    EXPECT_TRUE(_url_downloader_validate_sercvice_handle(s2));
    EXPECT_TRUE(_url_downloader_validate_api_handle(a2));
    EXPECT_FALSE(_url_downloader_validate_sercvice_handle((url_downloader_h)&i));
    EXPECT_FALSE(_url_downloader_validate_api_handle(nullptr));
    EXPECT_TRUE(log.Contains(kError, "_url_downloader_validate_api_handle", "NULL api-handle"));
    EXPECT_TRUE(log.ContainsText("New api of"));
}

TEST_F(RequestList, DeadHandleIsRefusedWithoutReadingIt)
{
    auto* s = Service();
    auto* a = Request(s, "/tmp/x");
    // Take the entry out and free the record: validation must only compare
    // addresses (AddressSanitizer reports any read of the freed record).
    DropHead();
    _url_downloader_free_api(a);
    EXPECT_FALSE(_url_downloader_validate_api_handle(a));
    EXPECT_TRUE(_url_downloader_validate_sercvice_handle(s)) << "registration entry alone keeps a service valid";
}

TEST_F(RequestList, DeliveryCallsBackOnTheMainLoopThreadThenForgetsTheRequest)
{
    LogCapture log;
    auto* s = Service();
    auto* ok = Request(s, "/tmp/done.bin", URL_DOWNLOADER_ERROR_NONE);
    auto* failed = Request(s, nullptr, URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED);
    ok->transferActive = 1;

    // Hand-over happens on the processing thread in the library.
    std::thread([&] {
        _url_downloader_resp_callback(ok);
        _url_downloader_resp_callback(failed);
    }).join();
    EXPECT_EQ(0, ok->transferActive) << "a handed-over request no longer counts as transferring";

    ASSERT_TRUE(Deliveries::WaitFor(2, 10s));
    auto all = Deliveries::All();
    ASSERT_EQ(2u, all.size());
    for (const auto& d : all) {
        EXPECT_EQ(std::this_thread::get_id(), d.thread);
        EXPECT_EQ(this, d.user_data);
        if (d.api == ok) {
            EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, d.error);
            EXPECT_EQ("/tmp/done.bin", d.path.value_or("<null>"));
        } else {
            EXPECT_EQ(failed, d.api);
            EXPECT_EQ(URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED, d.error);
            EXPECT_FALSE(d.path.has_value());
        }
    }
    // Both handles are dead; only the registration entry is left.
    EXPECT_FALSE(_url_downloader_validate_api_handle(ok));
    EXPECT_FALSE(_url_downloader_validate_api_handle(failed));
    EXPECT_EQ(1u, g_list_length(url_downloader_request_list));
    EXPECT_EQ(2u, log.Count(kDebug, "_url_downloader_idle_callback", "End.<<<<<<<<<<"));
}

TEST_F(RequestList, NoCallbackForSilentServicesOrSweptRequests)
{
    LogCapture log;
    auto* silent = Service(nullptr);
    auto* quiet = Request(silent, "/tmp/q");
    _url_downloader_resp_callback(quiet);

    auto* s = Service();
    auto* swept = Request(s, "/tmp/s");
    _url_downloader_resp_callback(swept);
    // A sweep before the idle run only unlists a request whose delivery is
    // queued: the run makes no call and frees it (LeakSanitizer checks).
    url_downloader_error e;
    ASSERT_TRUE(_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &e));
    EXPECT_TRUE(_url_downloader_owned_by_queue(swept));
    _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &e);
    DropHead();

    ASSERT_TRUE(ud_test::RunMainLoopUntil(
        [&] { return log.Count(kDebug, "_url_downloader_idle_callback", ">>>>>>>>Begin.") == 2; }, 10s));
    ud_test::RunMainLoopUntil([] { return false; }, 50ms); // let any stray source run
    EXPECT_EQ(0u, Deliveries::Count());
    EXPECT_TRUE(log.Contains(kError, "_url_downloader_idle_callback", "Entry not found in the global list, so returning"));
    // The silent service's request was still removed (and freed: LeakSanitizer).
    EXPECT_FALSE(_url_downloader_validate_api_handle(quiet));
    EXPECT_EQ(2u, g_list_length(url_downloader_request_list));

    EXPECT_FALSE(_url_downloader_idle_callback(nullptr));
    EXPECT_TRUE(log.Contains(kError, "_url_downloader_idle_callback", "Invalid input param"));
}

TEST_F(RequestList, FinalizationFreesQueuedDeliveriesWithoutTheLoop)
{
    auto* s = Service();
    auto* a = Request(s, "/tmp/a");
    _url_downloader_resp_callback(a);
    DropHead(); // the finalizing sweep unlists everything
    _url_downloader_forget_queued_requests();
    // The record is gone without the main loop having run, and so is its
    // idle source: running the loop now calls nothing and reads nothing.
    ud_test::RunMainLoopUntil([] { return false; }, 50ms);
    EXPECT_EQ(0u, Deliveries::Count());
}

} // namespace
