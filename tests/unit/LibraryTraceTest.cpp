// What the host learns from the library's trace: each failed file, folder, listing and link with
// the path and Windows error its own lines name, however the lines of threads interleave.
#include "keflhost/LibraryTrace.h"

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
    const keflhost::CFailure kExpected[] = {
        {FailureKind::File, L"E:\\held.txt", 32, L"Failed to open destination file for writing"},
        {FailureKind::Junction, L"E:\\Docs", 0, L"Link is not on an NTFS filesystem"},
        {FailureKind::Folder, L"E:\\Locked\\Sub", 5, L""},
        {FailureKind::HardLink, L"F:\\b.bin", 2, L""},
        {FailureKind::Listing, L"R:\\B\\E\\Secret", 5, L"FindFirstFile failed"}};
    ASSERT_EQ(std::size(kExpected), findings.vFailures.size());
    for (size_t i = 0; i < std::size(kExpected); ++i)
        EXPECT_EQ(keflhost::DescribeFailure(kExpected[i]), keflhost::DescribeFailure(findings.vFailures[i]));
}

TEST(LibraryTraceTest, GivesEachFailureOnlyItsOwnLinesWhereNoInformationLinesSeparateEntries)
{
    // At trace levels 1 and 2 (and past the size limit) no information line says where an entry
    // begins; one thread's error lines run on from entry to entry. "E text" is an error line.
    using CFailures = std::vector<keflhost::CFailure>;
    const struct
    {
        const char* pszCase;
        const char* pszLines;
        CFailures vExpected;
        const wchar_t* pwszSizeLimit;
    } kCases[] = {
        {"a note on a restored file or folder passes nothing on",
         "E KEFLImpl::CopyFileWithProgress : sDst = \"\\\\?\\E:\\a.txt\"\n"
         "E KEFLImpl::CopyFileWithProgress : dwLastError = 5\n"
         "E KEFLImpl::CopyFileWithProgress : Failed to set times\n"
         "E KEFLImpl::CopyFileWithProgress : .. ending(Memory allocation error)\n"
         "E KEFLImpl::RestoreFilespace : sDst = \"E:\\b.txt\"\n"
         "E KEFLImpl::RestoreFilespace : Failed to copy file\n"
         "E KEFLImpl::RestoreFilespace : sDst = \"\\\\?\\E:\\d\"\n"
         "E KEFLImpl::RestoreFilespace : dwLastError = 87\n"
         "E KEFLImpl::RestoreFilespace : Failed to set attributes\n"
         "E KEFLImpl::RestoreFilespace : sDst = \"E:\\e\"\n"
         "E KEFLImpl::RestoreFilespace : Failed to create folder\n",
         {{FailureKind::File, L"E:\\b.txt", 0, L"Memory allocation error"},
          {FailureKind::Folder, L"E:\\e", 0, L""}},
         L""},
        {"a failed file passes nothing to the next",
         "E KEFLImpl::CopyFileWithProgress : dwLastError = 32\n"
         "E KEFLImpl::CopyFileWithProgress : .. ending(Failed to open destination file for writing)\n"
         "E KEFLImpl::RestoreFilespace : sDst = \"E:\\a.txt\"\n"
         "E KEFLImpl::RestoreFilespace : Failed to copy file\n"
         "E KEFLImpl::CopyFileWithProgress : ... ending(Bytes Read != Bytes Written)\n"
         "E KEFLImpl::RestoreFilespace : sDst = \"E:\\b.txt\"\n"
         "E KEFLImpl::RestoreFilespace : Failed to copy file\n",
         {{FailureKind::File, L"E:\\a.txt", 32, L"Failed to open destination file for writing"},
          {FailureKind::File, L"E:\\b.txt", 0, L"Bytes Read != Bytes Written"}},
         L""},
        {"notes on links that were made pass nothing on; a link keeps its own error",
         "E KEFLImpl::CreateJunction : sJumboLink = \"\\\\?\\F:\\j\"\n"
         "E KEFLImpl::CreateJunction : dwAttr = 0x10\n"
         "E KEFLImpl::CreateJunction : dwLastError = 5\n"
         "E KEFLImpl::CreateJunction : ... ending(CreateFile failed)\n"
         "E KEFLImpl::CreateJunction : dwLastError = 1314\n"
         "E KEFLImpl::CreateJunction : sFolder = \"\\\\?\\F:\"\n"
         "E KEFLImpl::CreateJunction : dwLastError = 87\n"
         "E KEFLImpl::RestoreLinks : sLink = \"F:\\k\"\n"
         "E KEFLImpl::RestoreLinks : KEFLImpl::CreateJunction failed\n"
         "E KEFLImpl::CreateHardLinkW : dwLastError = 87\n"
         "E KEFLImpl::CreateHardLinkW : ... ending(Target is a directory)\n"
         "E KEFLImpl::RestoreLinks : sLink = \"F:\\h.bin\"\n"
         "E KEFLImpl::RestoreLinks : KEFLImpl::CreateHardLink failed\n",
         {{FailureKind::Junction, L"F:\\k", 1314, L"CreateFile failed"},
          {FailureKind::HardLink, L"F:\\h.bin", 0, L"Target is a directory"}},
         L""},
        {"the size-limit warning is kept",
         "W CTrace::WriteLine : Trace file reached its size limit of 1 MiB: information and verbose lines "
         "are no longer written\n",
         {},
         L"Trace file reached its size limit of 1 MiB: information and verbose lines are no longer written"},
    };
    for (const auto& [pszCase, pszLines, vExpected, pwszSizeLimit] : kCases)
    {
        SCOPED_TRACE(pszCase);
        std::string sTrace; // "E text" becomes "[time]:0a3c:[E]: text"
        for (std::string_view sLines = pszLines; !sLines.empty(); sLines.remove_prefix(sLines.find('\n') + 1))
            sTrace += "[2026-11-23 16:50:49.023]:0a3c:[" + std::string(1, sLines[0]) + "]: " +
                      std::string(sLines.substr(2, sLines.find('\n') - 1));
        const keflhost::CTraceFindings findings = keflhost::ParseTrace(sTrace);
        EXPECT_EQ(pwszSizeLimit, findings.sSizeLimit);
        ASSERT_EQ(vExpected.size(), findings.vFailures.size());
        for (size_t i = 0; i < vExpected.size(); ++i)
            EXPECT_EQ(keflhost::DescribeFailure(vExpected[i]),
                      keflhost::DescribeFailure(findings.vFailures[i]));
    }
}
