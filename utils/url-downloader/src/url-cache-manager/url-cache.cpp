#include <stdlib.h>
#include <string.h>

#include "url-cache-manager.h"
#include "url-downloader-log.h"

namespace {

char* dup_or_null(const char* s)
{
    return s != NULL ? strdup(s) : NULL;
}

void free_and_clear(char*& s)
{
    free(s);
    s = NULL;
}

} // namespace

UrlCache::UrlCache()
    : id(0), url(NULL), filepath(NULL), filesize(0), downloadtime(0), expirytime(0), appname(NULL)
{
}

UrlCache::UrlCache(url_downloader_cache* source) : UrlCache()
{
    if (source == NULL)
        return;
    id = source->id;
    url = dup_or_null(source->url);
    filepath = dup_or_null(source->filepath);
    filesize = source->filesize;
    downloadtime = source->downloadtime;
    expirytime = source->expirytime;
    appname = dup_or_null(source->appname);
}

UrlCache::UrlCache(const UrlCache& other) : UrlCache()
{
    UD_BEGIN();
    id = other.id;
    url = dup_or_null(other.url);
    filepath = dup_or_null(other.filepath);
    filesize = other.filesize;
    downloadtime = other.downloadtime;
    expirytime = other.expirytime;
    appname = dup_or_null(other.appname);
    UD_END();
}

UrlCache& UrlCache::operator=(const UrlCache& other)
{
    UD_BEGIN();
    if (this == &other)
        return *this;
    free_and_clear(url);
    free_and_clear(filepath);
    free_and_clear(appname);
    id = other.id;
    url = dup_or_null(other.url);
    filepath = dup_or_null(other.filepath);
    filesize = other.filesize;
    downloadtime = other.downloadtime;
    expirytime = other.expirytime;
    appname = dup_or_null(other.appname);
    return *this;
}

UrlCache::~UrlCache()
{
    UD_BEGIN();
    id = 0;
    filesize = 0;
    downloadtime = 0;
    expirytime = 0;
    free_and_clear(url);
    free_and_clear(filepath);
    free_and_clear(appname);
    UD_END();
}
