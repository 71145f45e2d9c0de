// The host log stand-in, reached through PlatformSymbol because the harness
// defines __dlog_print itself.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "test-env.h"
#include "test-server.h"

using namespace ud_test;

// Whether lines go to standard error is decided at a process's first line:
// each setting gets a child of its own.
TEST(PlatformDlogTest, PrintsToStderrOnlyWhenAskedAndNeverOverrunsALine)
{
    auto log = reinterpret_cast<int (*)(int, const char*, const char*, ...)>(PlatformSymbol("__dlog_print"));
    ASSERT_NE(nullptr, log);
    const std::string full = "6/URL-Downloader: [UD_ERROR]: [f () Line 3] : text\n4/: no newline\n4/t: " +
                             std::string(1023, 'x') + "\n";
    for (const char* setting : {static_cast<const char*>(nullptr), "0", "1"}) {
        const std::string out = TempPath(std::string("stderr-") + (setting ? setting : "unset"));
        const pid_t child = fork();
        if (child == 0) {
            if (setting != nullptr)
                setenv("VELMORA_LOG_STDERR", setting, 1);
            else
                unsetenv("VELMORA_LOG_STDERR");
            if (!freopen(out.c_str(), "w", stderr))
                _exit(3);
            log(6, "URL-Downloader", "[UD_ERROR]: [%s () Line %d] : %s", "f", 3, "text\n");
            setenv("VELMORA_LOG_STDERR", setting != nullptr && setting[0] == '1' ? "0" : "1", 1); // read once
            log(4, nullptr, "no newline");
            log(4, "t", "%s", std::string(5000, 'x').c_str());
            const int code = log(4, "t", nullptr) == -1 ? 0 : 4;
            fflush(stderr);
            _exit(code);
        }
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status) << (setting ? setting : "unset");
        EXPECT_EQ(setting != nullptr && setting[0] == '1' ? full : "", ReadFile(out)) << (setting ? setting : "unset");
    }
}
