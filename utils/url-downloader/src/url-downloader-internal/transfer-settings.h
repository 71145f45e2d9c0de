/* Setting a service's extra transfer settings on one transfer. */
#ifndef URL_DOWNLOADER_TRANSFER_SETTINGS_H
#define URL_DOWNLOADER_TRANSFER_SETTINGS_H

#include "url-downloader-internal.h"

/* Sets the options the settings ask for on the easy handle, after the
 * transfer's own, and the body limit on its record. Options of a setting
 * left at zero are not set at all. */
void _url_downloader_apply_settings(CURL* easy, const url_downloader_transfer_settings_t* settings,
                                    url_downloader_curl_pvt_data* record);

#endif
