// Per-process test environment: a private temporary folder.
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

// Number of entries in a folder, e.g. "/proc/self/task" (threads) or
// "/proc/self/fd" (descriptors).
// With expected given, reads again for up to 3 s until the count is that:
// a thread that has been joined can stay listed for a moment (under qemu).
size_t Entries(const char* dir, size_t expected = SIZE_MAX);

// The test process's own temporary folder, made on first use and removed
// with its contents when the process exits.
const std::string& TempDir();

// Path of a file named name inside TempDir().
std::string TempPath(const std::string& name);

// The platform library's own definition of the function name, for the
// functions the harness defines in its place (__dlog_print, db_util_open).
// Found after the program's own definitions in symbol order, or else in
// libvelmora-platform.so.0 loaded on the spot (the linker drops the
// platform library from a test program that needs none of its symbols).
// NULL when it cannot be found.
void* PlatformSymbol(const char* name);

} // namespace ud_test
