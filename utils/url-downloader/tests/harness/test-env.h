// Per-process test environment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ud_test {

// Load sizes are divided by this under a sanitizer or on ARM (emulated or
// the device itself), several times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int kScale = 2;
#else
constexpr int kScale = 1;
#endif

// Entries of a folder: "/proc/self/task" (threads), "/proc/self/fd". With
// expected given, reads again for up to 3 s until the count is that (a
// joined thread can stay listed for a moment).
size_t Entries(const char* dir, size_t expected = SIZE_MAX);

// The process's own temporary folder, removed when the process exits, and
// the path of a file in it.
const std::string& TempDir();
std::string TempPath(const std::string& name);

// The platform library's own definition of a function the harness replaces
// (__dlog_print, db_util_open); NULL when not found.
void* PlatformSymbol(const char* name);

} // namespace ud_test
