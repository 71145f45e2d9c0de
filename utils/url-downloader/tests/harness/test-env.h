// Per-process test environment: a private temporary folder.
#pragma once

#include <string>

namespace ud_test {

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
