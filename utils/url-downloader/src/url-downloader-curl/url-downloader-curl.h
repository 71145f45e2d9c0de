/* The transfer thread, the completion report and the libcurl callbacks. */
#ifndef URL_DOWNLOADER_CURL_H
#define URL_DOWNLOADER_CURL_H

#include <stddef.h>

#include <curl/curl.h>

#include "url-downloader-private.h"

extern "C" {
/* Transfer thread body; arg is the engine object. Returns NULL (0). */
UD_EXPORT void* url_downloader_download_loop(void* arg);
/* libcurl body callback: writes into the record's destination file. */
UD_EXPORT size_t url_downloader_body_parser(void* data, size_t size, size_t nmemb, void* user_data);
/* libcurl header callback: takes the expiry time from Expires / Cache-Control max-age. */
UD_EXPORT size_t url_downloader_header_parser(char* line, size_t size, size_t nmemb, void* user_data);
}

/* Judges one finished transfer and reports it to the processing thread. */
void _url_downloader_response_cb(CURL* easy_handle, void* user_data, CURLcode result);

#endif
