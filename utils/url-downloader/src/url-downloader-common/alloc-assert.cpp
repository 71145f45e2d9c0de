#include <stdio.h>
#include <stdlib.h>

#include "url-downloader-log.h"

void ud_assert_alloc(int ok, const char* expr, const char* file, int line, const char* func)
{
    if (ok)
        return;
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    abort();
}
