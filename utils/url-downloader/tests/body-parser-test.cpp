// The body callback: the response body lands in the request's file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "log-capture.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

using ud_test::kError;
using ud_test::LogCapture;

namespace {

struct Record : url_downloader_curl_pvt_data {
    explicit Record(const char* path) : url_downloader_curl_pvt_data{}
    {
        filePath = path != nullptr ? strdup(path) : nullptr;
    }
    ~Record()
    {
        if (fileHandle != nullptr)
            fclose(fileHandle);
        free(filePath);
    }
    size_t Write(const std::string& chunk)
    {
        return url_downloader_body_parser((void*)chunk.data(), 1, chunk.size(), this);
    }
};

TEST(BodyParser, ChunksAreWrittenAndCountedAndOldContentIsTruncated)
{
    const std::string path = ud_test::TempPath("body");
    {
        Record old(path.c_str());
        ASSERT_EQ(10000u, old.Write(ud_test::Pattern(10000, 1)));
    }
    const std::string a = ud_test::Pattern(3000, 2), b = ud_test::Pattern(5, 3);
    Record r(path.c_str());
    EXPECT_EQ(a.size(), r.Write(a));
    EXPECT_EQ(b.size(), r.Write(b));
    EXPECT_EQ(3005, r.fileSize);
    fclose(r.fileHandle);
    r.fileHandle = nullptr;
    EXPECT_EQ(a + b, ud_test::ReadFile(path));
}

TEST(BodyParser, WritesThatCannotHappenAbortTheTransfer)
{
    LogCapture log;
    const std::string chunk = ud_test::Pattern(100, 4);
    EXPECT_EQ(0u, url_downloader_body_parser((void*)chunk.data(), 1, chunk.size(), nullptr));
    EXPECT_TRUE(log.Contains(kError, "url_downloader_body_parser", "User_data is NULL. returning!"));

    Record no_path(nullptr);
    EXPECT_EQ(0u, no_path.Write(chunk));
    EXPECT_TRUE(log.Contains(kError, "url_downloader_body_parser", "No Filename to write data\n"));

    const std::string missing = ud_test::TempPath("no-such-folder/file");
    Record no_folder(missing.c_str());
    EXPECT_EQ(0u, no_folder.Write(chunk));
    EXPECT_TRUE(log.Contains(kError, "url_downloader_body_parser", "Failed to write data to:" + missing + "\n"));
    EXPECT_FALSE(ud_test::FileExists(missing));
    EXPECT_EQ(0, no_path.fileSize + no_folder.fileSize);

    // A chunk larger than stdio's buffer reaches the device at once: a full
    // device gives a short count, and only what was stored is counted.
    Record full("/dev/full");
    const std::string big = ud_test::Pattern(1 << 20, 5);
    size_t stored = full.Write(big);
    EXPECT_LT(stored, big.size());
    EXPECT_EQ((long)stored, full.fileSize);
}

} // namespace
