/* Answering a request: its outcome handed to the client callback on the client's main loop. */
#include <stdint.h>

#include "library-lifecycle.h"
#include "request-ledger.h"

bool _url_downloader_resp_callback(url_downloader_api_h api)
{
    UD_BEGIN();
    _url_downloader_queue_delivery(api, _url_downloader_idle_callback);
    UD_END();
    return true;
}

void _url_downloader_answer_request(url_downloader_api_h api, url_downloader_error outcome, const char* servedPath,
                                    const url_downloader_reason_t* reason)
{
    _url_downloader_set_outcome(api, outcome, servedPath, reason);
    _url_downloader_resp_callback(api);
}

gboolean _url_downloader_idle_callback(void* data)
{
    UD_BEGIN();
    if (data == NULL) {
        UD_ERROR("Invalid input param");
        return FALSE;
    }
    url_downloader_api_h api = (url_downloader_api_h)data;

    // The ledger is read like a public call would: never while the library
    // is being brought up or taken down. A finalization running now frees
    // this request itself.
    url_downloader_delivery_t delivery;
    {
        UdPublicCall call;
        if (!call.LibraryUp())
            return FALSE;
        url_downloader_delivery_start_t start = _url_downloader_begin_delivery(api, &delivery);
        if (start == URL_DOWNLOADER_DELIVERY_GONE)
            UD_ERROR("Entry not found in the global list, so returning");
        if (start != URL_DOWNLOADER_DELIVERY_CALL)
            return FALSE;
    }

    // No library lock is held here: the callback may call anything,
    // finalization included.
    UD_DEBUG("Calling client callback for api-handle = %ld", (long)(intptr_t)api);
    delivery.callback(api, delivery.path, delivery.userData, delivery.error);

    {
        // Even across a finalization (which leaves a running delivery's
        // request to it), so this waits one out rather than being refused.
        UdPublicCall call(false);
        const int left = _url_downloader_end_delivery(api, delivery.service);
        if (left >= 0) {
            UD_DEBUG("Valid api handle");
            UD_DEBUG("Request removed from the list for api-handle %ld, remaining list count is %d",
                     (long)(intptr_t)api, left);
        }
    }
    UD_END();
    return FALSE;
}
