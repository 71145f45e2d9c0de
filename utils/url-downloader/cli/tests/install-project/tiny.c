#include <stddef.h>
#include <url-downloader.h>

int main(void)
{
    url_downloader_h service = NULL;
    const int rc = url_downloader_register("install-test", NULL, NULL, &service);
    url_downloader_finalize();
    return rc != URL_DOWNLOADER_ERROR_NONE;
}
