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

namespace {

struct Record : url_downloader_curl_pvt_data {
    explicit Record(const std::string& path) : url_downloader_curl_pvt_data{}
    {
        filePath = path.empty() ? nullptr : strdup(path.c_str());
    }
    ~Record()
    {
        Close();
        free(filePath);
    }
    void Close()
    {
        if (fileHandle != nullptr)
            fclose(fileHandle);
        fileHandle = nullptr;
    }
    size_t Write(const std::string& chunk) { return url_downloader_body_parser((void*)chunk.data(), 1, chunk.size(), this); }
};

TEST(BodyParser, ChunksAreCountedAndReplaceTheOldContent)
{
    const std::string path = ud_test::TempPath("body"), a = ud_test::Pattern(3000, 2), b = ud_test::Pattern(5, 3);
    ASSERT_EQ(10000u, Record(path).Write(ud_test::Pattern(10000, 1)));
    Record r(path);
    EXPECT_EQ(a.size(), r.Write(a));
    EXPECT_EQ(b.size(), r.Write(b));
    EXPECT_EQ(3005, r.fileSize);
    r.Close();
    EXPECT_EQ(a + b, ud_test::ReadFile(path));
}

TEST(BodyParser, WritesThatCannotHappenAbortTheTransfer)
{
    ud_test::LogCapture log;
    const std::string chunk = ud_test::Pattern(100, 4), missing = ud_test::TempPath("no-such-folder/file");
    EXPECT_EQ(0u, url_downloader_body_parser((void*)chunk.data(), 1, chunk.size(), nullptr));
    Record no_path(""), no_folder(missing);
    EXPECT_EQ(0u, no_path.Write(chunk));
    EXPECT_EQ(0u, no_folder.Write(chunk));
    EXPECT_EQ(0, no_path.fileSize + no_folder.fileSize);
    EXPECT_FALSE(ud_test::FileExists(missing));
    const char* fn = "url_downloader_body_parser";
    EXPECT_TRUE(log.Contains(ud_test::kError, fn, "User_data is NULL. returning!"));
    EXPECT_TRUE(log.Contains(ud_test::kError, fn, "No Filename to write data\n"));
    EXPECT_TRUE(log.Contains(ud_test::kError, fn, "Failed to write data to:" + missing + "\n"));

    // A chunk larger than stdio's buffer goes to the device at once: a full
    // device gives a short count, and only what was stored is counted.
    Record full("/dev/full");
    const std::string big = ud_test::Pattern(1 << 20, 5);
    size_t stored = full.Write(big);
    EXPECT_LT(stored, big.size());
    EXPECT_EQ((long)stored, full.fileSize);
}

} // namespace
