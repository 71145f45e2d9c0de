#include "test-env.h"

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <unistd.h>

namespace ud_test {

namespace {
std::string g_dir;
pid_t g_owner;

void RemoveTempDir()
{
    // Forked children share the folder; only the process that made it removes it.
    if (!g_dir.empty() && getpid() == g_owner) {
        std::error_code ec;
        std::filesystem::remove_all(g_dir, ec);
    }
}
} // namespace

const std::string& TempDir()
{
    static std::once_flag once;
    std::call_once(once, [] {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/ud-test-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed for " + tmpl);
        g_dir = tmpl;
        g_owner = getpid();
        std::atexit(RemoveTempDir);
    });
    return g_dir;
}

std::string TempPath(const std::string& name) { return TempDir() + "/" + name; }

void* PlatformSymbol(const char* name)
{
    if (void* sym = dlsym(RTLD_NEXT, name))
        return sym;
    // Kept loaded for the rest of the process.
    static void* const platform = dlopen("libvelmora-platform.so.0", RTLD_NOW | RTLD_LOCAL);
    return platform != nullptr ? dlsym(platform, name) : nullptr;
}

size_t Entries(const char* dir, size_t expected)
{
    size_t n = 0;
    for (int i = 0; i < 300; ++i) {
        auto it = std::filesystem::directory_iterator(dir);
        n = (size_t)std::distance(it, std::filesystem::directory_iterator());
        if (expected == SIZE_MAX || n == expected)
            break;
        usleep(10000);
    }
    return n;
}

} // namespace ud_test
