// Running the GLib default main context, where the library delivers results.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "url-downloader.h"

namespace ud_test {

// Iterates the default main context on the calling thread until done()
// (true) or timeout (false); done() is checked at least every few ms.
bool RunMainLoopUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

// One call of the client callback.
struct Delivery {
    url_downloader_api_h api;
    std::optional<std::string> path; // copy of the file path; nullopt for NULL
    void* user_data;
    int error;
    std::thread::id thread; // thread that ran the callback
    std::chrono::steady_clock::time_point at{};
};

// Every call of Callback, in one process-wide, thread-safe list.
struct Deliveries {
    static bool Callback(url_downloader_api_h api, void* path, void* user_data, int error);
    static std::vector<Delivery> All();
    static size_t Count() { return All().size(); }
    static void Clear();
    // Runs the main loop until at least n deliveries have been recorded.
    static bool WaitFor(size_t n, std::chrono::milliseconds timeout)
    {
        return RunMainLoopUntil([n] { return Count() >= n; }, timeout);
    }
};

} // namespace ud_test
