// Running the GLib default main context, where the library delivers results.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "url-downloader.h"

namespace ud_test {

// Iterates the default main context on the calling thread until done()
// returns true (true) or timeout has passed (false). done() is checked
// before the first iteration and at least every few milliseconds.
bool RunMainLoopUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

// One call of the client callback.
struct Delivery {
    url_downloader_api_h api;
    std::optional<std::string> path; // copy of the file path; nullopt for NULL
    void* user_data;
    int error;
    std::thread::id thread; // thread that ran the callback
};

// Records every call of Callback in one process-wide, thread-safe list.
class Deliveries {
public:
    // A url_downloader_callback_t.
    static bool Callback(url_downloader_api_h api, void* path, void* user_data, int error);
    static std::vector<Delivery> All();
    static size_t Count();
    static void Clear();
    // Runs the main loop until at least n deliveries have been recorded.
    static bool WaitFor(size_t n, std::chrono::milliseconds timeout);
};

} // namespace ud_test
