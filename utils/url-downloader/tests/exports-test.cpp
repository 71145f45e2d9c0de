// The shared library exports exactly its interface: nothing internal leaks.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>

TEST(Exports, OnlyTheInterfaceIsExported)
{
    // The client calls, the entry points the device's tools link against, and
    // besides them the three classes' members and sanitizer hooks.
    const std::set<std::string> interface = {"url_downloader_register",
                                             "url_downloader_configure_network",
                                             "url_downloader_clean",
                                             "url_downloader_deregister",
                                             "url_downloader_finalize",
                                             "url_downloader_download",
                                             "url_downloader_cancel_request",
                                             "url_downloader_cancel_all_requests",
                                             "url_downloader_set_transport",
                                             "url_downloader_set_limits",
                                             "url_downloader_set_trace",
                                             "url_downloader_get_reason",
                                             "url_downloader_get_progress",
                                             "url_downloader_mutex_utility",
                                             "url_downloader_write_pipe",
                                             "url_downloader_thread_loop",
                                             "url_downloader_get_cache_filepath",
                                             "url_downloader_check_cache",
                                             "url_downloader_add_cache",
                                             "url_downloader_download_loop",
                                             "url_downloader_body_parser",
                                             "url_downloader_header_parser",
                                             "_Z29_url_downloader_idle_callbackPv",
                                             "_ZN13UrlDownloader14CreateInstanceEv",
                                             "_ZN15URLCacheManager11getInstanceEv",
                                             "_ZN8UrlCacheC1Ev",
                                             "_ZN13UrlDownloader8instanceE"};
    const std::regex besides(
        "_ZNK?(13UrlDownloader|15URLCacheManager|8UrlCache).+|__(odr_asan|asan|tsan|ubsan|sanitizer).+");
    FILE* p = popen("nm -D --defined-only --format=posix '" UD_SHARED_LIBRARY "'", "r");
    ASSERT_NE(nullptr, p);
    std::set<std::string> symbols;
    for (char line[4096]; fgets(line, sizeof line, p) != nullptr;)
        symbols.insert(std::string(line).substr(0, std::string(line).find(' ')));
    pclose(p);
    for (const auto& s : symbols)
        EXPECT_TRUE(interface.count(s) || std::regex_match(s, besides)) << s << " is exported but internal";
    for (const auto& s : interface)
        EXPECT_EQ(1u, symbols.count(s)) << s << " is not exported";
}
