#pragma once
// The trace's words that our host reads to learn what a restore could not do: the functions whose
// lines it follows, the lines that close a failed file, folder, listing or link, the notes on an
// entry restored without its times or attributes, the names of the values it takes, and the
// warning of the size limit. The library writes its lines with these, the host matches them: one
// text for both, so that neither can change it alone.
namespace morvane::words
{

// Functions.
inline constexpr wchar_t kRestoreFilespace[] = L"KEFLImpl::RestoreFilespace";
inline constexpr wchar_t kCountFiles[] = L"KEFLImpl::CountFiles";
inline constexpr wchar_t kRestoreLinks[] = L"KEFLImpl::RestoreLinks";
inline constexpr wchar_t kCreateJunction[] = L"KEFLImpl::CreateJunction";
inline constexpr wchar_t kCreateSymbolicLink[] = L"KEFLImpl::CreateSymbolicLink";
inline constexpr wchar_t kCreateHardLink[] = L"KEFLImpl::CreateHardLinkW";

// The line of kRestoreFilespace that closes a failed file or folder.
inline constexpr wchar_t kFileFailed[] = L"Failed to copy file";
inline constexpr wchar_t kFolderFailed[] = L"Failed to create folder";
// kCountFiles' failed exits: a backup folder that could not be listed.
inline constexpr wchar_t kListingFailed[] = L"... ending(FindFirstFile failed)";
inline constexpr wchar_t kListingCut[] = L"... ending(FindNextFile failed)";
// The lines of kRestoreLinks that close a failed link, one a pass.
inline constexpr wchar_t kJunctionFailed[] = L"KEFLImpl::CreateJunction failed";
inline constexpr wchar_t kSymbolicLinkFailed[] = L"KEFLImpl::CreateSymbolicLink failed";
inline constexpr wchar_t kHardLinkFailed[] = L"KEFLImpl::CreateHardLink failed";
// Notes that end what was said of an entry restored all the same.
inline constexpr wchar_t kTimesNotSet[] = L"Failed to set times";
inline constexpr wchar_t kAttributesNotSet[] = L"Failed to set attributes";
// A function's failed exit: "... ending(reason)".
inline constexpr wchar_t kEnding[] = L"ending(";

// Values: "function : name = value".
inline constexpr wchar_t kDst[] = L"sDst";
inline constexpr wchar_t kFolder[] = L"sFolder";
inline constexpr wchar_t kLink[] = L"sLink";
inline constexpr wchar_t kJumboLink[] = L"sJumboLink";
inline constexpr wchar_t kJumboTarget[] = L"sJumboTarget";
inline constexpr wchar_t kLastError[] = L"dwLastError";
inline constexpr wchar_t kWalkFiles[] = L"walk.ullFiles";
inline constexpr wchar_t kWalkFolders[] = L"walk.ullDirectories";
inline constexpr wchar_t kWalkSkippedFiles[] = L"walk.ullSkippedFiles";
inline constexpr wchar_t kWalkSkippedFolders[] = L"walk.ullSkippedFolders";
// A file an earlier run restored whole, kept as it is: "Kept unchanged = <path>".
inline constexpr wchar_t kKeptUnchanged[] = L"Kept unchanged";
// A link that stood where the backup has a folder or file, removed: "Link in the way removed = <path>".
inline constexpr wchar_t kLinkRemoved[] = L"Link in the way removed";

// The warning a trace writes once, when its file reaches its size limit:
//   CTrace::WriteLine : Trace file reached its size limit of 256 MiB: information and verbose
//   lines are no longer written
inline constexpr wchar_t kTraceLimitFunction[] = L"CTrace::WriteLine";
// Followed by the limit in MiB and kTraceLimitConsequence.
inline constexpr wchar_t kTraceLimitReached[] = L"Trace file reached its size limit of ";
inline constexpr wchar_t kTraceLimitConsequence[] = L" MiB: information and verbose lines are no longer written";

} // namespace morvane::words
