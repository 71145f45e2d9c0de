#include "main-loop.h"

#include <glib.h>
#include <mutex>

namespace ud_test {

namespace {
std::mutex g_mutex;
std::vector<Delivery> g_deliveries;
} // namespace

bool RunMainLoopUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // A tick wakes a blocked iteration, so that done() is checked again when
    // its condition does not come from the main context.
    GSource* tick = g_timeout_source_new(5);
    g_source_set_callback(
        tick, [](gpointer) { return (gboolean)G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(tick, nullptr);
    bool ok = done();
    while (!ok && std::chrono::steady_clock::now() < deadline) {
        if (!g_main_context_iteration(nullptr, TRUE)) // also when another thread owns the context
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ok = done();
    }
    g_source_destroy(tick);
    g_source_unref(tick);
    return ok;
}

bool Deliveries::Callback(url_downloader_api_h api, void* path, void* user_data, int error)
{
    Delivery d{api, std::nullopt, user_data, error, std::this_thread::get_id(), std::chrono::steady_clock::now()};
    if (path != nullptr)
        d.path = static_cast<const char*>(path);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_deliveries.push_back(std::move(d));
    return true;
}

std::vector<Delivery> Deliveries::All()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_deliveries;
}

void Deliveries::Clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_deliveries.clear();
}

} // namespace ud_test
