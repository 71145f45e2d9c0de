// What a request's ending means to the person who ran the client: its result
// line and the exit status it asks for.
#pragma once

#include <string>

#include "url-downloader-extension.h"

namespace udcli {

// Exit statuses, on wget's scale.
enum ExitStatus {
    kExitOk = 0,
    kExitGeneric = 1,
    kExitUsage = 2,
    kExitFileIo = 3,
    kExitNetwork = 4,
    kExitTls = 5,
    kExitServer = 8,
};

// The status that wins over both: as wget does, any failure beats success and
// a generic failure, and among the others the lower number wins.
int WorseStatus(int a, int b);

struct Outcome {
    bool ok = false;
    int status = kExitOk;
    std::string reason;     // "HTTP 404", "curl 7: Couldn't connect to server", ...
    bool errorPage = false; // the file holds a server's error response, not the download
};

// error: the callback's code; reason: what the library told inside it.
Outcome Judge(int error, const url_downloader_reason_t& reason);

// A request that url_downloader_download refused outright.
Outcome Refused(int error);

// The library's name of an error code.
const char* ErrorName(int error);

} // namespace udcli
