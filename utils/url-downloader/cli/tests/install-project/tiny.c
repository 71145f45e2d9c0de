#include <stddef.h>
#include <url-downloader-extension.h>
#include <url-downloader.h>

int main(void)
{
    url_downloader_h service = NULL;
    const url_downloader_limits_t limits = {10, 30, 5, 0};
    int rc = url_downloader_set_trace(URL_DOWNLOADER_TRACE_OFF);
    rc |= url_downloader_register("install-test", NULL, NULL, &service);
    rc |= url_downloader_set_limits(service, &limits);
    url_downloader_finalize();
    return rc != URL_DOWNLOADER_ERROR_NONE;
}
