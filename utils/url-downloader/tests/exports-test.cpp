// The shared library exports exactly its interface: nothing internal leaks.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

namespace {

std::set<std::string> DefinedDynamicSymbols(const std::string& lib)
{
    std::set<std::string> out;
    std::string cmd = "nm -D --defined-only --format=posix '" + lib + "' 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return out;
    char line[4096];
    while (fgets(line, sizeof line, p) != nullptr) {
        std::string s(line);
        out.insert(s.substr(0, s.find(' ')));
    }
    pclose(p);
    return out;
}

TEST(Exports, OnlyTheInterfaceIsExported)
{
    const std::set<std::string> plain = {
        "url_downloader_register", "url_downloader_configure_network", "url_downloader_clean",
        "url_downloader_deregister", "url_downloader_finalize", "url_downloader_download",
        "url_downloader_cancel_request", "url_downloader_cancel_all_requests",
        "url_downloader_mutex_utility", "url_downloader_write_pipe", "url_downloader_thread_loop",
        "url_downloader_get_cache_filepath", "url_downloader_check_cache", "url_downloader_add_cache",
        "url_downloader_download_loop", "url_downloader_body_parser", "url_downloader_header_parser",
        "_Z29_url_downloader_idle_callbackPv"};
    auto starts = [](const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; };
    // Members of the three exported classes (functions and static data).
    auto member = [&](const std::string& s) {
        for (const char* cls : {"_ZN13UrlDownloader", "_ZN15URLCacheManager", "_ZN8UrlCache", "_ZNK13UrlDownloader",
                                "_ZNK15URLCacheManager", "_ZNK8UrlCache"})
            if (starts(s, cls) && s.size() > std::string(cls).size())
                return true;
        return false;
    };
    // Instrumentation that sanitizer builds add.
    auto sanitizer = [&](const std::string& s) {
        for (const char* p : {"__odr_asan", "__asan", "__tsan", "__ubsan", "__sanitizer"})
            if (starts(s, p))
                return true;
        return false;
    };

    auto symbols = DefinedDynamicSymbols(UD_SHARED_LIBRARY);
    ASSERT_FALSE(symbols.empty()) << "could not read " << UD_SHARED_LIBRARY;
    std::set<std::string> unexpected;
    for (const auto& s : symbols) {
        if (plain.count(s) == 0 && !member(s) && !sanitizer(s))
            unexpected.insert(s);
    }
    std::string list;
    for (const auto& s : unexpected)
        list += s + "\n";
    EXPECT_TRUE(unexpected.empty()) << "exported but internal:\n" << list;

    for (const auto& s : plain)
        EXPECT_EQ(1u, symbols.count(s)) << s << " is not exported";
    for (const char* s : {"_ZN13UrlDownloader14CreateInstanceEv", "_ZN15URLCacheManager11getInstanceEv",
                          "_ZN8UrlCacheC1Ev", "_ZN13UrlDownloader8instanceE"})
        EXPECT_EQ(1u, symbols.count(s)) << s << " is not exported";
}

} // namespace
