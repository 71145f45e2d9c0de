// Keeps the tests off the host's real cache database: the harness defines
// the platform's db_util_open, which opens the library's fixed path
// "/opt/dbspace/.urlcache.db" at CacheDbPath() instead and refuses any other
// path under /opt/dbspace.
#pragma once

#include <string>

namespace ud_test {

// The process's stand-in for the cache database: TempPath("urlcache.db").
std::string CacheDbPath();

// While fail is true, db_util_open returns non-zero and a NULL handle.
void FailDbOpen(bool fail);

// Closes the library's cache connection and removes the database files, so
// that the next cache call starts on a new database (library idle).
void FreshCacheDb();

// Rows of the cache table matching an SQL condition, on a connection of its
// own; 0 when there is no database yet, -1 on an SQL error.
int CountCacheRows(const std::string& where_sql = "1");

} // namespace ud_test
