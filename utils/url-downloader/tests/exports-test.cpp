// The shared library exports exactly its interface: nothing internal leaks.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

TEST(Exports, OnlyTheInterfaceIsExported)
{
    const std::set<std::string> plain = {
        "url_downloader_register", "url_downloader_configure_network", "url_downloader_clean",
        "url_downloader_deregister", "url_downloader_finalize", "url_downloader_download",
        "url_downloader_cancel_request", "url_downloader_cancel_all_requests", "url_downloader_mutex_utility",
        "url_downloader_write_pipe", "url_downloader_thread_loop", "url_downloader_get_cache_filepath",
        "url_downloader_check_cache", "url_downloader_add_cache", "url_downloader_download_loop",
        "url_downloader_body_parser", "url_downloader_header_parser", "_Z29_url_downloader_idle_callbackPv",
        "_ZN13UrlDownloader14CreateInstanceEv", "_ZN15URLCacheManager11getInstanceEv", "_ZN8UrlCacheC1Ev",
        "_ZN13UrlDownloader8instanceE"};
    // Besides: members of the three exported classes, and sanitizer instrumentation.
    const char* allowed[] = {"_ZN13UrlDownloader", "_ZN15URLCacheManager", "_ZN8UrlCache", "_ZNK13UrlDownloader",
                             "_ZNK15URLCacheManager", "_ZNK8UrlCache", "__odr_asan", "__asan", "__tsan", "__ubsan",
                             "__sanitizer"};
    FILE* p = popen("nm -D --defined-only --format=posix '" UD_SHARED_LIBRARY "'", "r");
    ASSERT_NE(nullptr, p);
    std::set<std::string> symbols;
    for (char line[4096]; fgets(line, sizeof line, p) != nullptr;)
        symbols.insert(std::string(line).substr(0, std::string(line).find(' ')));
    pclose(p);
    for (const auto& s : symbols) {
        bool ok = plain.count(s) > 0;
        for (const char* prefix : allowed)
            ok = ok || (s.rfind(prefix, 0) == 0 && s.size() > strlen(prefix));
        EXPECT_TRUE(ok) << s << " is exported but internal";
    }
    for (const auto& s : plain)
        EXPECT_EQ(1u, symbols.count(s)) << s << " is not exported";
}
