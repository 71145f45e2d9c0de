// The header callback: expiry time from "Expires: " and Cache-Control max-age.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <memory>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// Feeds the lines as libcurl does, each in a buffer of its own length with
// no terminating NUL, so that a read past it shows under AddressSanitizer.
int64_t Parse(std::initializer_list<std::string> lines, int64_t start = 0)
{
    url_downloader_curl_pvt_data record{};
    record.expiryTime = start;
    for (const std::string& line : lines) {
        std::unique_ptr<char[]> at(new char[line.size()]);
        memcpy(at.get(), line.data(), line.size());
        EXPECT_EQ(line.size(), url_downloader_header_parser(at.get(), 1, line.size(), &record)) << line;
    }
    return record.expiryTime;
}

TEST(HeaderParser, ExpiresIsLocalTimeMaxAgeIsFromNowAndTheLastHeaderWins)
{
    setenv("TZ", "America/New_York", 1); // has summer time
    tzset();
    const std::string dec94 = "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n", age60 = "Cache-Control: max-age=60\r\n";
    EXPECT_EQ(786315600, Parse({dec94}));
    EXPECT_EQ(773092800, Parse({"Expires: Fri, 01 Jul 1994 16:00:00 GMT\r\n"})) << "summer time";
    EXPECT_EQ(INT64_C(2219515200), Parse({"Expires: Tue, 01 May 2040 16:00:00 GMT\r\n"})) << "past 2038";
    EXPECT_EQ(42, Parse({"Expires: 0\r\n", "Expires: -1\r\n", "Expires: Thu,"}, 42));
    EXPECT_EQ(-1, Parse({"Expires: Thu, tomorrow at noon\r\n"}, 42));
    EXPECT_EQ(786315600, Parse({age60, dec94}));
    EXPECT_GE(Parse({dec94, age60}), time(nullptr) + 60);
    EXPECT_EQ(-1, Parse({age60, "Expires: Thu, 32 Foo 1994 16:00:00 GMT\r\n"}));

    const std::pair<std::string, int64_t> ages[] = {
        {"Cache-Control: max-age=3600\r\n", 3600},
        {"Cache-Control: public, max-age=600, must-revalidate\r\n", 600},
        {"Cache-Control: private, max-age=60\r\n", 60},
        // Cut at the first comma only when it lies within 63 characters.
        {"Cache-Control: max-age=" + std::string(59, '0') + "3600,x\r\n", 3600},
        {"Cache-Control: max-age=" + std::string(60, '0') + "3600,x\r\n", 0},
        {"Cache-Control: max-age=abc\r\n", 0},
        {"Cache-Control: max-age=", 0},
    };
    for (const auto& c : ages) {
        const int64_t before = time(nullptr), got = Parse({c.first}), after = time(nullptr);
        EXPECT_TRUE(got >= before + c.second && got <= after + c.second) << c.first << " gave " << got;
    }
    EXPECT_EQ(INT64_MAX, Parse({"Cache-Control: max-age=99999999999999999999"})) << "saturates";
    for (const char* ignored : {"Cache-Control: no-cache, max-age=0\r\n", "Cache-Control: public,max-age=600\r\n",
                                "cache-control: max-age=60\r\n", "expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n",
                                "HTTP/1.1 200 OK\r\n", "Cache-Control: max-age"})
        EXPECT_EQ(7, Parse({ignored}, 7)) << ignored;
    char line[] = "Cache-Control: max-age=60\r\n";
    EXPECT_EQ(0u, url_downloader_header_parser(line, 1, sizeof line - 1, nullptr)) << "no record aborts";
}
} // namespace
