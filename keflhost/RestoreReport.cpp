#include "keflhost/RestoreReport.h"

#include "keflhost/HostOutput.h"
#include "platform/ErrorText.h"
#include "platform/UniqueHandle.h"
#include "platform/Utf8.h"

#include <nlohmann/json.hpp>

namespace keflhost
{
namespace
{

using morvane::ToUtf8;

nlohmann::ordered_json Failures(const std::vector<CFailure>& vFailures)
{
    nlohmann::ordered_json failures = nlohmann::ordered_json::array();
    for (const CFailure& failure : vFailures)
        failures.push_back({{"kind", ToUtf8(KindName(failure.kind))},
                            {"path", ToUtf8(failure.sPath)},
                            {"error", failure.dwError},
                            {"errorText", ToUtf8(morvane::ErrorText(failure.dwError))},
                            {"reason", ToUtf8(failure.sReason)}});
    return failures;
}

// Why a list of failures may not be all of them, or null when it is.
nlohmann::ordered_json MayBeMissing(const std::wstring& sWhy)
{
    return sWhy.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(ToUtf8(sWhy));
}

nlohmann::ordered_json ExitBits(int iStatus)
{
    nlohmann::ordered_json bits = nlohmann::ordered_json::array();
    if (iStatus == kExitOk)
        bits.push_back("ok");
    if (iStatus == kExitNotStarted)
        bits.push_back("not started");
    if (iStatus & kExitFilesFailed)
        bits.push_back("files failed");
    if (iStatus & kExitLinksFailed)
        bits.push_back("links failed");
    if (iStatus & kExitDifferences)
        bits.push_back("differences");
    if (iStatus & kExitCutShort)
        bits.push_back("cut short");
    return bits;
}

} // namespace

std::string ReportJson(const CRunRecord& record)
{
    nlohmann::ordered_json report;
    report["library"] = {{"description", ToUtf8(record.sDescription)}, {"version", ToUtf8(record.sVersion)}};
    report["credentials"] = {{"location", ToUtf8(record.sLocation)},
                             {"pointInTime", record.sPointInTime.empty()
                                                 ? nlohmann::ordered_json(nullptr)
                                                 : nlohmann::ordered_json(ToUtf8(record.sPointInTime))}};
    if (!record.sNotStarted.empty())
    {
        report["notStarted"] = ToUtf8(record.sNotStarted);
        nlohmann::ordered_json lines = nlohmann::ordered_json::array();
        for (const std::wstring& sLine : record.vNotStartedTrace)
            lines.push_back(ToUtf8(sLine));
        report["notStartedTrace"] = lines;
    }
    nlohmann::ordered_json filespaces = nlohmann::ordered_json::array();
    for (const CFilespaceRecord& fs : record.vFilespaces)
    {
        nlohmann::ordered_json entry = {{"name", ToUtf8(fs.sName)},     {"path", ToUtf8(fs.sPath)},
                                        {"result", ToUtf8(OutcomeName(fs.outcome))}, {"files", fs.ullFiles},
                                        {"folders", fs.ullFolders},     {"bytes", fs.ullBytes},
                                        {"seconds", fs.dSeconds},       {"failures", Failures(fs.vFailures)},
                                        {"failuresMayBeMissing", MayBeMissing(fs.sFailuresIncomplete)}};
        if (record.bResumed)
            entry["keptUnchanged"] = fs.ullKept;
        if (fs.outcome == FilespaceOutcome::CutShort)
            entry["doneBeforeCutShort"] = fs.ullDone;
        if (fs.bVerified)
        {
            nlohmann::ordered_json differences = nlohmann::ordered_json::array();
            for (const CDifference& difference : fs.verification.vDifferences)
                differences.push_back(
                    {{"path", ToUtf8(difference.sPath)}, {"difference", ToUtf8(difference.sWhat)}});
            entry["verify"] = {{"files", fs.verification.ullFiles},
                               {"folders", fs.verification.ullFolders},
                               {"bytes", fs.verification.ullBytes},
                               {"differences", differences}};
        }
        filespaces.push_back(entry);
    }
    report["filespaces"] = filespaces;
    if (record.bLinksRestored)
    {
        static const char* const kPasses[] = {"junctions", "symbolicLinks", "hardLinks"};
        nlohmann::ordered_json links;
        for (size_t i = 0; i < record.links.size(); ++i)
        {
            const CLinkPass& pass = record.links[i];
            const uint64_t ullFailed = std::min(pass.ullFailed, pass.ullDone);
            links[kPasses[i]] = {
                {"recorded", pass.ullTotal}, {"made", pass.ullDone - ullFailed}, {"failed", ullFailed}};
        }
        links["recordedOnlyUnderWine"] = record.bLinksRecordedOnly;
        links["failures"] = Failures(record.vLinkFailures);
        links["failuresMayBeMissing"] = MayBeMissing(record.sLinkFailuresIncomplete);
        report["links"] = links;
    }
    if (!record.sStopped.empty())
        report["stopped"] = ToUtf8(record.sStopped);
    if (!record.sCutShort.empty())
        report["cutShort"] = ToUtf8(record.sCutShort);
    if (record.bVerifyStopped)
        report["verificationStopped"] = true;
    if (!record.sEndedAfterWork.empty())
        report["endedAfterWork"] = ToUtf8(record.sEndedAfterWork);
    report["resumed"] = record.bResumed;
    report["exitStatus"] = record.iExitStatus;
    report["exitMeaning"] = ExitBits(record.iExitStatus);
    // Replaced, not thrown: a name the conversion could not carry must not lose the report.
    return report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

bool WriteReport(const std::wstring& sFile, const CRunRecord& record)
{
    const std::string sJson = ReportJson(record);
    morvane::CUniqueFile hFile(::CreateFileW(sFile.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                             FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD cbWritten = 0;
    if (!hFile ||
        !::WriteFile(hFile.get(), sJson.data(), static_cast<DWORD>(sJson.size()), &cbWritten, nullptr) ||
        cbWritten != sJson.size())
    {
        const DWORD dwError = ::GetLastError();
        PrintLine(L"keflhost: the report " + sFile + L" could not be written: " + morvane::ErrorText(dwError));
        return false;
    }
    return true;
}

} // namespace keflhost
