#include "links/LinkPointFiles.h"

#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

#include <cwchar>
#include <new>
#include <string_view>
#include <vector>

namespace morvane
{
namespace
{

// The first buffer for the section-name list, and the step by which it grows while the list does
// not fit.
constexpr DWORD kSectionNamesGrowChars = 1024;
// One value of a section, terminator included: longer values are cut to 4095 characters.
constexpr DWORD kValueChars = 4096;
// The longest line of HPoint.dat; a longer one ends the reading.
constexpr size_t kMaxLineChars = 4095;
constexpr DWORD kReadChunkBytes = 64 * 1024;

// One value of a section: empty when the key is missing or has no value.
std::wstring ReadProfileValue(const std::wstring& sPath, const wchar_t* pwszSection, const wchar_t* pwszKey,
                              std::vector<wchar_t>& vBuffer)
{
    const DWORD cch = ::GetPrivateProfileStringW(pwszSection, pwszKey, L"", vBuffer.data(),
                                                 static_cast<DWORD>(vBuffer.size()), sPath.c_str());
    return std::wstring(vBuffer.data(), cch);
}

// Whether the text between "H" and "=" of an HPoint.dat line reads as the number 1: its leading
// decimal digits count ("H01" is 1), anything after them is ignored, no digits at all is 0.
bool IsFirstHardLinkNumber(std::wstring_view sNumber)
{
    size_t pos = 0;
    while (pos < sNumber.size() && sNumber[pos] == L'0')
        ++pos;
    const size_t posOne = pos;
    while (pos < sNumber.size() && sNumber[pos] >= L'0' && sNumber[pos] <= L'9')
        ++pos;
    return pos - posOne == 1 && sNumber[posOne] == L'1';
}

// Reads a file in chunks and hands out its lines, each byte widened to one character as it is
// (no code-page or UTF-8 decoding).
class CByteLineReader
{
public:
    CByteLineReader(HANDLE hFile, size_t cchMaxLine)
        : m_hFile(hFile), m_cchMaxLine(cchMaxLine), m_vChunk(kReadChunkBytes)
    {
    }

    // The next line without its line end; false at the end of the file (or when reading fails,
    // with the error in ReadError()). A line is cut at "\n"; one "\r" before it is dropped too,
    // as a text stream does, so that files with CRLF line ends read the same as those with LF.
    // A line longer than the maximum comes back unfinished, just over the maximum: its caller
    // stops there, so the rest of it need not be held.
    bool NextLine(std::wstring& sLine)
    {
        sLine.clear();
        bool bAny = false;
        for (;;)
        {
            if (m_posChunk == m_cbChunk && !Fill())
                break;
            bAny = true;
            const unsigned char* pbStart = m_vChunk.data() + m_posChunk;
            const unsigned char* pbEnd = m_vChunk.data() + m_cbChunk;
            const unsigned char* pbNewline = pbStart;
            while (pbNewline != pbEnd && *pbNewline != '\n')
                ++pbNewline;
            sLine.append(pbStart, pbNewline); // each unsigned byte becomes one wchar_t
            m_posChunk = static_cast<DWORD>(pbNewline - m_vChunk.data());
            if (sLine.size() > m_cchMaxLine + 1) // room for the "\r" of a CRLF line end
                return true;
            if (pbNewline != pbEnd)
            {
                ++m_posChunk;
                if (!sLine.empty() && sLine.back() == L'\r')
                    sLine.pop_back();
                return true;
            }
        }
        return bAny && !sLine.empty(); // a last line without line end still counts
    }

    DWORD ReadError() const { return m_dwReadError; }

private:
    bool Fill()
    {
        m_posChunk = 0;
        m_cbChunk = 0;
        if (m_bEnd)
            return false;
        DWORD cbRead = 0;
        if (!::ReadFile(m_hFile, m_vChunk.data(), static_cast<DWORD>(m_vChunk.size()), &cbRead, nullptr))
        {
            m_dwReadError = ::GetLastError();
            m_bEnd = true;
            return false;
        }
        if (cbRead == 0)
        {
            m_bEnd = true;
            return false;
        }
        m_cbChunk = cbRead;
        return true;
    }

    HANDLE m_hFile;
    size_t m_cchMaxLine;
    std::vector<unsigned char> m_vChunk;
    DWORD m_posChunk = 0;
    DWORD m_cbChunk = 0;
    bool m_bEnd = false;
    DWORD m_dwReadError = ERROR_SUCCESS;
};

} // namespace

bool ParsePoint(const std::wstring& sPath, PointList& list)
{
    static const wchar_t kFn[] = L"KEFLImpl::ParsePoint";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sPath", sPath);
    if (sPath.empty())
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Empty path argument)");
        return false;
    }

    std::vector<wchar_t> vSectionNames;
    std::vector<wchar_t> vValue;
    DWORD dwSize = 0;
    try
    {
        vValue.resize(kValueChars);
        // A list that does not fit comes back cut, with the buffer's size minus 2 as its length.
        DWORD cchBuffer = kSectionNamesGrowChars;
        for (;;)
        {
            vSectionNames.resize(cchBuffer);
            dwSize = ::GetPrivateProfileSectionNamesW(vSectionNames.data(), cchBuffer, sPath.c_str());
            if (dwSize != cchBuffer - 2)
                break;
            cchBuffer += kSectionNamesGrowChars;
        }
    }
    catch (const std::bad_alloc&)
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L".. ending(Memory allocation error)");
        return false;
    }

    if (dwSize == 0)
    {
        // Also the answer for a missing file: a backup without links of this kind has none.
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"No sections found in file");
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"dwSize", static_cast<int64_t>(dwSize));
    }

    // The names follow each other, each ended by a NUL, the list by a second NUL.
    const wchar_t* const pwszEnd = vSectionNames.data() + dwSize;
    for (const wchar_t* wszSection = vSectionNames.data(); wszSection < pwszEnd && *wszSection != L'\0';
         wszSection += std::wcslen(wszSection) + 1)
    {
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"wszSection", wszSection);
        std::wstring sBackupTarget = ReadProfileValue(sPath, wszSection, L"BackupTarget", vValue);
        if (sBackupTarget.empty())
        {
            g_KeflTrace.TraceMessage(TRACE_WARNING, kFn, L"No BackupTarget found ... skipping section");
            continue;
        }
        std::wstring sTarget = ReadProfileValue(sPath, wszSection, L"Target", vValue);
        if (sTarget.empty())
        {
            g_KeflTrace.TraceMessage(TRACE_WARNING, kFn, L"No Target found ... skipping section");
            continue;
        }
        const UINT uiAttr = ::GetPrivateProfileIntW(wszSection, L"Attr", 0, sPath.c_str());

        Point point;
        point.sLink = wszSection;
        point.sTarget = std::move(sTarget);
        point.sBackupTarget = std::move(sBackupTarget);
        point.dwAttr = uiAttr;
        list.push_back(std::move(point));
    }

    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"PointList.size()", static_cast<int64_t>(list.size()));
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool ParseHPoint(const std::wstring& sPath, PointList& list)
{
    static const wchar_t kFn[] = L"KEFLImpl::ParseHPoint";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sPath", sPath);
    if (sPath.empty())
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Empty path argument)");
        return false;
    }

    CUniqueFile hFile(::CreateFileW(sPath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!hFile)
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Couldn't open file for reading)");
        return false;
    }

    // A group starts with "[", names its backup copy in "B=", the link target in "H1=" and
    // every further name of the same file in "H2=", "H3=", ...: one Point per further name.
    CByteLineReader reader(hFile.get(), kMaxLineChars);
    Point ThisPoint;
    std::wstring sLine;
    while (reader.NextLine(sLine))
    {
        if (sLine.size() > kMaxLineChars)
            break; // as a bounded line read would: the rest of the file is not read
        if (sLine.empty())
            continue;
        switch (sLine[0])
        {
        case L'[':
            ThisPoint = Point();
            break;
        case L'B':
        {
            const size_t posEquals = sLine.find(L'=');
            ThisPoint.sBackupTarget = posEquals == std::wstring::npos ? sLine : sLine.substr(posEquals + 1);
            break;
        }
        case L'H':
        {
            const size_t posEquals = sLine.find(L'=');
            if (posEquals == std::wstring::npos)
                break;
            const std::wstring_view sNumber = std::wstring_view(sLine).substr(1, posEquals - 1);
            if (IsFirstHardLinkNumber(sNumber))
            {
                ThisPoint.sTarget.assign(sLine, posEquals + 1);
                break;
            }
            ThisPoint.sLink.assign(sLine, posEquals + 1);
            g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"ThisPoint.sTarget", ThisPoint.sTarget);
            g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"ThisPoint.sBackupTarget", ThisPoint.sBackupTarget);
            g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"ThisPoint.sLink", ThisPoint.sLink);
            list.push_back(ThisPoint);
            break;
        }
        default:
            break;
        }
    }
    if (reader.ReadError() != ERROR_SUCCESS)
    {
        // A stream stops quietly at a read error; the trace at least tells that it happened.
        g_KeflTrace.TraceMessage(TRACE_WARNING, kFn, L"Read error ... rest of file ignored");
        g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"dwLastError", static_cast<int64_t>(reader.ReadError()));
    }

    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"PointList.size()", static_cast<int64_t>(list.size()));
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

} // namespace morvane
