/* Downloads one URL into a file: url-downloader's smallest complete client. */
#include <stdio.h>
#include <glib.h>
#include <url-downloader.h>

static GMainLoop* loop;
static int result = -1;

/* Runs in the main loop once the download has ended. */
static bool on_done(url_downloader_api_h request, void* file_path, void* user_data, int error)
{
    (void)request;
    (void)user_data;
    printf("error %d, file %s\n", error, file_path != NULL ? (const char*)file_path : "(none)");
    result = error;
    g_main_loop_quit(loop);
    return true;
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s URL PATH\n", argv[0]);
        return 2;
    }
    url_downloader_h service = NULL;
    if (url_downloader_register("minimal-client", on_done, NULL, &service) != URL_DOWNLOADER_ERROR_NONE)
        return 1;
    url_downloader_api_h request = NULL;
    loop = g_main_loop_new(NULL, FALSE);
    if (url_downloader_download(service, argv[2], argv[1], false, NULL, &request) == URL_DOWNLOADER_ERROR_NONE)
        g_main_loop_run(loop); /* the callback comes through this loop */
    g_main_loop_unref(loop);
    url_downloader_finalize();
    return result == URL_DOWNLOADER_ERROR_NONE ? 0 : 1;
}
