#pragma once
// The warning a trace writes once, when its file reaches its size limit:
//   CTrace::WriteLine : Trace file reached its size limit of 256 MiB: information and verbose
//   lines are no longer written
// The trace writes it; our host looks for it, because past it the failures it learns from the
// trace may be incomplete. One text for both, so that neither can change it alone.
namespace morvane
{

inline constexpr wchar_t kTraceLimitFunction[] = L"CTrace::WriteLine";
// Followed by the limit in MiB and kTraceLimitConsequence.
inline constexpr wchar_t kTraceLimitReached[] = L"Trace file reached its size limit of ";
inline constexpr wchar_t kTraceLimitConsequence[] = L" MiB: information and verbose lines are no longer written";

} // namespace morvane
