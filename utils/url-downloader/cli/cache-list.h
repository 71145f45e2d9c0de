// The cache list command.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

namespace udcli {

// Prints the shared cache's rows (only app's when given) to out, problems to
// err. Returns the exit status.
int ListCache(const std::optional<std::string>& app, std::FILE* out, std::FILE* err);

} // namespace udcli
