/* Answering downloads from the URL cache and admitting finished downloads. */
#ifndef URL_DOWNLOADER_CACHE_POLICY_H
#define URL_DOWNLOADER_CACHE_POLICY_H

#include "url-downloader-private.h"
#include "url-cache-manager.h"

/* Largest string (with its terminator) that the lookup copies. */
#define URL_DOWNLOADER_MAX_COPY_SIZE 0x500000
/* Lifetime of a download whose response gave no usable expiry: 180 days. */
#define DEFAULT_CACHE_LIFETIME 15552000L

extern "C" {
UD_EXPORT char* url_downloader_get_cache_filepath(url_downloader_cache* cache);
UD_EXPORT bool url_downloader_check_cache(url_downloader_api_t* api_handle, url_downloader_error* error);
UD_EXPORT bool url_downloader_add_cache(url_downloader_cache* cache, url_downloader_error* error);
}

#endif
