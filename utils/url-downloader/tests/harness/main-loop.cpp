#include "main-loop.h"

#include <glib.h>
#include <mutex>

namespace ud_test {

namespace {
std::mutex g_mutex;
std::vector<Delivery> g_deliveries;

// Wakes a blocked iteration, so that done() is re-checked even when the
// condition does not come from the main context (a file, another thread).
constexpr guint kTickMs = 5;
gboolean Tick(gpointer) { return G_SOURCE_CONTINUE; }
} // namespace

bool RunMainLoopUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (done())
        return true;
    GSource* tick = g_timeout_source_new(kTickMs);
    g_source_set_callback(tick, Tick, nullptr, nullptr);
    g_source_attach(tick, nullptr);
    bool ok = false;
    for (;;) {
        // Returns after the tick at the latest; FALSE also when another thread
        // owns the context, in which case we must not spin.
        if (!g_main_context_iteration(nullptr, TRUE))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (done()) {
            ok = true;
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            break;
    }
    g_source_destroy(tick);
    g_source_unref(tick);
    return ok;
}

bool Deliveries::Callback(url_downloader_api_h api, void* path, void* user_data, int error)
{
    Delivery d{api, std::nullopt, user_data, error, std::this_thread::get_id()};
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

size_t Deliveries::Count()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_deliveries.size();
}

void Deliveries::Clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_deliveries.clear();
}

bool Deliveries::WaitFor(size_t n, std::chrono::milliseconds timeout)
{
    return RunMainLoopUntil([n] { return Count() >= n; }, timeout);
}

} // namespace ud_test
