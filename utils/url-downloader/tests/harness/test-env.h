// Per-process test environment: a private temporary folder.
#pragma once

#include <string>

namespace ud_test {

// The test process's own temporary folder, made on first use and removed
// with its contents when the process exits.
const std::string& TempDir();

// Path of a file named name inside TempDir().
std::string TempPath(const std::string& name);

} // namespace ud_test
