/* Answering downloads from the URL cache and admitting finished downloads. */
#ifndef URL_DOWNLOADER_CACHE_POLICY_H
#define URL_DOWNLOADER_CACHE_POLICY_H

#include "url-downloader-private.h"
#include "url-cache-manager.h"

/* Largest string (with its terminator) that the lookup copies. */
#define URL_DOWNLOADER_MAX_COPY_SIZE 0x500000
/* Lifetime of a download whose response gave no usable expiry: 180 days. */
#define DEFAULT_CACHE_LIFETIME 15552000L

/* Admissions kept in memory while another process holds the cache's lock;
 * past this the oldest go. */
#define URL_DOWNLOADER_MAX_HELD_ADMISSIONS 1000
/* How often the processing thread looks whether such a lock has gone (ms). */
#define URL_DOWNLOADER_CACHE_PROBE_MS 200

/* Offers a finished download to the cache: written now, or held while
 * another process holds the database's lock. Processing thread only. */
void _url_downloader_admit_download(url_downloader_cache* record);

/* While admissions are held or the database is locked: looks, without
 * waiting, whether the lock has gone, and then writes the held admissions in
 * one transaction. Returns the milliseconds until it wants to look again, -1
 * when nothing waits for the lock. Processing thread only. */
int _url_downloader_settle_cache(void);

extern "C" {
UD_EXPORT char* url_downloader_get_cache_filepath(url_downloader_cache* cache);
UD_EXPORT bool url_downloader_check_cache(url_downloader_api_t* api_handle, url_downloader_error* error);
UD_EXPORT bool url_downloader_add_cache(url_downloader_cache* cache, url_downloader_error* error);
}

#endif
