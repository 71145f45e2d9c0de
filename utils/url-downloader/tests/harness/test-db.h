// Keeps the tests off the host's real cache database.
//
// The harness defines the platform's db_util_open: the library's fixed cache
// path "/opt/dbspace/.urlcache.db" is opened at CacheDbPath() instead, by the
// platform's own implementation. Any other path is opened as given, except
// other paths under /opt/dbspace, which are refused.
#pragma once

#include <string>

namespace ud_test {

// The process's stand-in for the cache database: TempPath("urlcache.db").
std::string CacheDbPath();

// While fail is true, db_util_open returns non-zero and a NULL handle.
void FailDbOpen(bool fail);

// Rows of the cache table at CacheDbPath(), optionally filtered by an SQL
// condition ("appname='x'"; a leading "where" is accepted too), on a
// connection of its own. 0 when the database file does not exist yet; -1 on
// an SQL error.
int CountCacheRows(const std::string& where_sql = "");

} // namespace ud_test
