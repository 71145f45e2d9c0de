/* UrlCache: one cache row that owns its strings. */
#include <stdlib.h>
#include <string.h>

#include "url-cache-manager.h"
#include "url-downloader-log.h"

namespace {

char* dup_or_null(const char* s) { return s != NULL ? strdup(s) : NULL; }

void free_and_clear(char*& s)
{
    free(s);
    s = NULL;
}

// Copies the seven fields of a row record (a UrlCache or the plain record,
// which share their field names) with private copies of the strings.
template <typename Source>
void copy_fields(UrlCache& to, const Source& from)
{
    to.id = from.id;
    to.url = dup_or_null(from.url);
    to.filepath = dup_or_null(from.filepath);
    to.filesize = from.filesize;
    to.downloadtime = from.downloadtime;
    to.expirytime = from.expirytime;
    to.appname = dup_or_null(from.appname);
}

} // namespace

UrlCache::UrlCache() : id(0), url(NULL), filepath(NULL), filesize(0), downloadtime(0), expirytime(0), appname(NULL) {}

UrlCache::UrlCache(url_downloader_cache* source) : UrlCache()
{
    if (source != NULL)
        copy_fields(*this, *source);
}

UrlCache::UrlCache(const UrlCache& other) : UrlCache()
{
    UD_BEGIN();
    copy_fields(*this, other);
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
    copy_fields(*this, other);
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
