// What the host learns from the library's trace: each failed file, folder, listing and link with
// the path and Windows error its own lines name, however the lines of threads interleave.
#include "host/LibraryTrace.h"

#include <gtest/gtest.h>

using keflhost::FailureKind;

TEST(LibraryTraceTest, NamesEachFailureWithItsOwnPathErrorAndReason)
{
    // Two threads. Thread 0b10's first hard link traces an error it goes on from: that error must
    // not stick to the junction after it, which failed for a reason without a Windows error.
    const char kTrace[] =
        "[2026-11-23 16:50:49.023]:0a3c:[I]: KEFLImpl::RestoreFilespace : walk.ullFiles = 12\n"
        "[2026-11-23 16:50:49.023]:0a3c:[I]: KEFLImpl::RestoreFilespace : walk.ullDirectories = 3\n"
        "[2026-11-23 16:50:49.024]:0a3c:[I]: KEFLImpl::RestoreFilespace : sDst = \"E:\\held.txt\"\n"
        "[2026-11-23 16:50:49.024]:0b10:[I]: KEFLImpl::CreateHardLink : sLink = \"F:\\a.bin\"\n"
        "[2026-11-23 16:50:49.024]:0a3c:[E]: KEFLImpl::CopyFileWithProgress : dwLastError = 32\n"
        "[2026-11-23 16:50:49.025]:0b10:[E]: KEFLImpl::CreateHardLink : dwLastError = 5\n"
        "[2026-11-23 16:50:49.025]:0a3c:[E]: KEFLImpl::CopyFileWithProgress : .. ending(Failed to open "
        "destination file for writing)\n"
        "[2026-11-23 16:50:49.026]:0b10:[I]: KEFLImpl::CreateJunction : sLink = \"E:\\Docs\"\n"
        "[2026-11-23 16:50:49.026]:0a3c:[E]: KEFLImpl::RestoreFilespace : sDst = \"E:\\held.txt\"\n"
        "[2026-11-23 16:50:49.026]:0b10:[E]: KEFLImpl::CreateJunction : ... ending(Link is not on an NTFS "
        "filesystem)\n"
        "[2026-11-23 16:50:49.027]:0a3c:[E]: KEFLImpl::RestoreFilespace : Failed to copy file\n"
        "[2026-11-23 16:50:49.027]:0b10:[E]: KEFLImpl::RestoreLinks : sLink = \"E:\\Docs\"\r\n"
        "[2026-11-23 16:50:49.027]:0b10:[E]: KEFLImpl::RestoreLinks : KEFLImpl::CreateJunction failed\r\n"
        "[2026-11-23 16:50:49.028]:0a3c:[E]: KEFLImpl::RestoreFilespace : sDst = \"E:\\Locked\\Sub\"\n"
        "[2026-11-23 16:50:49.028]:0a3c:[E]: KEFLImpl::RestoreFilespace : dwLastError = 5\n"
        "[2026-11-23 16:50:49.028]:0a3c:[E]: KEFLImpl::RestoreFilespace : Failed to create folder\n"
        "[2026-11-23 16:50:49.029]:0b10:[E]: KEFLImpl::CreateHardLink : sJumboLink = \"\\\\?\\F:\\b.bin\"\n"
        "[2026-11-23 16:50:49.029]:0b10:[E]: KEFLImpl::CreateHardLink : sJumboTarget = \"\\\\?\\F:\\c.bin\"\n"
        "[2026-11-23 16:50:49.029]:0b10:[E]: KEFLImpl::CreateHardLink : dwLastError = 2\n"
        "[2026-11-23 16:50:49.029]:0b10:[E]: KEFLImpl::RestoreLinks : KEFLImpl::CreateHardLink failed\n"
        "[2026-11-23 16:50:49.030]:0a3c:[E]: KEFLImpl::CountFiles : sFolder = \"R:\\B\\E\\Secret\"\n"
        "[2026-11-23 16:50:49.030]:0a3c:[E]: KEFLImpl::CountFiles : dwLastError = 5\n"
        "[2026-11-23 16:50:49.030]:0a3c:[E]: KEFLImpl::CountFiles : ... ending(FindFirstFile failed)\n"
        "[2026-11-23 16:50:49.031]:0a3c:[E]: KEFLImpl::RestoreFilespace : Failed to copy f"; // cut by a crash

    // Read in pieces that cut lines anywhere, as reads of a file do.
    const keflhost::CTraceFindings findings = keflhost::ParseTrace(kTrace, 61);
    EXPECT_TRUE(findings.bWalkCounted);
    EXPECT_EQ(12u, findings.ullFiles);
    EXPECT_EQ(3u, findings.ullFolders);
    const struct
    {
        FailureKind kind;
        const wchar_t* pwszPath;
        DWORD dwError;
        const wchar_t* pwszReason;
    } kExpected[] = {
        {FailureKind::File, L"E:\\held.txt", 32, L"Failed to open destination file for writing"},
        {FailureKind::Junction, L"E:\\Docs", 0, L"Link is not on an NTFS filesystem"},
        {FailureKind::Folder, L"E:\\Locked\\Sub", 5, L""},
        {FailureKind::HardLink, L"F:\\b.bin", 2, L""},
        {FailureKind::Listing, L"R:\\B\\E\\Secret", 5, L"FindFirstFile failed"},
    };
    ASSERT_EQ(std::size(kExpected), findings.vFailures.size());
    for (size_t i = 0; i < std::size(kExpected); ++i)
    {
        const keflhost::CFailure& failure = findings.vFailures[i];
        SCOPED_TRACE(testing::PrintToString(failure.sPath));
        EXPECT_EQ(keflhost::KindName(kExpected[i].kind), keflhost::KindName(failure.kind));
        EXPECT_EQ(kExpected[i].pwszPath, failure.sPath);
        EXPECT_EQ(kExpected[i].dwError, failure.dwError);
        EXPECT_EQ(kExpected[i].pwszReason, failure.sReason);
    }
}
