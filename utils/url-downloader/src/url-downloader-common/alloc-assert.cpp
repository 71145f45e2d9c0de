/* The fatal end of a failed allocation. */
#include <stdio.h>
#include <stdlib.h>

#include "url-downloader-log.h"

void ud_alloc_failed(const char* expr, const char* file, int line, const char* func)
{
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    abort();
}
