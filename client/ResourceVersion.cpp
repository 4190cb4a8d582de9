// The module's version text, read from its version resource and recorded for support staff.
#include "client/ModuleName.h"
#include "client/VESKImpl.h"
#include "platform/ModulePath.h"
#include "trace/TraceObjects.h"
#include "platform/FormatText.h"

#include <cstdio>
#include <vector>

namespace morvane
{
namespace
{

const wchar_t kFn[] = L"VESKImpl::GetResourceVersionStr";

void TraceFailure(const wchar_t* pwszReason)
{
    g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, pwszReason);
}

// One value of the string table for the resource's first language and code page; false (and the
// matching trace) when it is missing or empty.
bool QueryString(const std::vector<BYTE>& info, const wchar_t* pwszSubBlock, const wchar_t* pwszFailed,
                 const wchar_t* pwszEmpty, std::wstring& sValue)
{
    wchar_t* pwszValue = nullptr;
    UINT cch = 0;
    if (!::VerQueryValueW(info.data(), pwszSubBlock, reinterpret_cast<void**>(&pwszValue), &cch))
    {
        TraceFailure(pwszFailed);
        return false;
    }
    if (!pwszValue || cch == 0 || pwszValue[0] == L'\0')
    {
        TraceFailure(pwszEmpty);
        return false;
    }
    sValue = pwszValue;
    return true;
}

// The full path of the loaded module sModuleName; false (traced) when it is not loaded or its
// path cannot be read.
bool LoadedModulePath(const std::wstring& sModuleName, std::wstring& sPath)
{
    HMODULE hModule = ::GetModuleHandleW(sModuleName.c_str());
    if (!hModule)
    {
        const DWORD dwLastError = ::GetLastError();
        TraceFailure(L"... ending(NULL module)");
        g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
        return false;
    }
    DWORD dwLastError = 0;
    if (!GetModulePath(hModule, sPath, dwLastError))
    {
        TraceFailure(L"... ending(GetModuleFileName failed)");
        g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
        return false;
    }
    return true;
}

// The whole version resource of the file sPath; false (traced) when it has none or it cannot be
// read.
bool ReadVersionInfo(const std::wstring& sPath, std::vector<BYTE>& info)
{
    DWORD dwHandle = 0;
    const DWORD cbInfo = ::GetFileVersionInfoSizeW(sPath.c_str(), &dwHandle);
    if (cbInfo == 0)
    {
        TraceFailure(L"... ending(No version resource available)");
        return false;
    }
    info.resize(cbInfo);
    if (!::GetFileVersionInfoW(sPath.c_str(), 0, cbInfo, info.data()))
    {
        TraceFailure(L"... ending(GetFileVersionInfo failed)");
        return false;
    }
    return true;
}

// "\StringFileInfo\<language><code page>\" of the resource's first translation, the block that
// holds its version strings; false (traced) when the resource names no translation.
bool StringBlockName(const std::vector<BYTE>& info, std::wstring& sBlock)
{
    struct LANGANDCODEPAGE
    {
        WORD wLanguage;
        WORD wCodePage;
    }* lpTranslate = nullptr;
    UINT cbTranslate = 0;
    if (!::VerQueryValueW(info.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&lpTranslate),
                          &cbTranslate) ||
        cbTranslate < sizeof(LANGANDCODEPAGE))
    {
        TraceFailure(L"... ending(VerQueryValue failed)");
        return false;
    }
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"lpTranslate->wLanguage",
                           static_cast<int64_t>(lpTranslate->wLanguage));
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"lpTranslate->wCodePage",
                           static_cast<int64_t>(lpTranslate->wCodePage));

    wchar_t wszBlock[64];
    // Two words take at most eight hexadecimal digits: the block name always fits.
    (void)FormatInto(wszBlock, L"\\StringFileInfo\\%04x%04x\\", lpTranslate->wLanguage,
                     lpTranslate->wCodePage);
    sBlock = wszBlock;
    return true;
}

} // namespace

void VESKImpl::GetResourceVersionStr(std::wstring& sVersion)
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    const std::wstring sModuleName = kModuleFileName;
    if (sModuleName.empty())
    {
        TraceFailure(L"... ending(No DLL name parameter)");
        return;
    }
    sVersion = L"Error";

    std::wstring sPath;
    std::vector<BYTE> info;
    std::wstring sBlock;
    if (!LoadedModulePath(sModuleName, sPath) || !ReadVersionInfo(sPath, info) ||
        !StringBlockName(info, sBlock))
        return;

    std::wstring sFileVersion;
    std::wstring sPrivateBuild;
    if (!QueryString(info, (sBlock + L"FileVersion").c_str(),
                     L"... ending(VerQueryValue(FileVersion) failed)",
                     L"... ending( No data returned by VerQueryValue(FileVersion) )", sFileVersion) ||
        !QueryString(info, (sBlock + L"PrivateBuild").c_str(),
                     L"... ending(VerQueryValue(PrivateBuild) failed)",
                     L"... ending( No data returned by VerQueryValue(PrivateBuild) )", sPrivateBuild))
        return;

    sVersion = sFileVersion + L" (build " + sPrivateBuild + L")";

    // Support staff find the version of every module of a recovery in one file.
    std::wstring sLogDir;
    GetLogDir(sLogDir);
    ::WritePrivateProfileStringW(sModuleName.c_str(), L"Version", sVersion.c_str(),
                                 (sLogDir + L"\\Version.log").c_str());
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"sVersion", sVersion);
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
}

} // namespace morvane
