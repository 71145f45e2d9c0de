#include "test-env.h"

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace ud_test {

const std::string& TempDir()
{
    static const pid_t owner = getpid();
    static const std::string& dir = *new std::string([] { // kept for the exit handler
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/ud-test-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed for " + tmpl);
        std::atexit([] { // forked children share the folder: only its maker removes it
            std::error_code ec;
            if (getpid() == owner)
                std::filesystem::remove_all(TempDir(), ec);
        });
        return tmpl;
    }());
    return dir;
}

std::string TempPath(const std::string& name) { return TempDir() + "/" + name; }

void* PlatformSymbol(const char* name)
{
    if (void* sym = dlsym(RTLD_NEXT, name))
        return sym;
    // The linker drops the platform library from programs that need none of its symbols.
    static void* const platform = dlopen("libvelmora-platform.so.0", RTLD_NOW | RTLD_LOCAL);
    return platform != nullptr ? dlsym(platform, name) : nullptr;
}

size_t Entries(const char* dir, size_t expected)
{
    size_t n = 0;
    for (int i = 0; i < 300; ++i, usleep(10000)) {
        auto it = std::filesystem::directory_iterator(dir);
        n = (size_t)std::distance(it, std::filesystem::directory_iterator());
        if (expected == SIZE_MAX || n == expected)
            break;
    }
    return n;
}

} // namespace ud_test
