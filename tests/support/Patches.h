#pragma once
// Substitutions a test makes in a module's import table, undone together at the end of the test.
#include "winecompat/IatPatch.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace kefltest
{

class CPatches
{
public:
    // Puts pfnReplacement in the place of pszDll!pszFunction in hModule's imports and returns the function it
    // replaced (for a replacement that passes calls on); a test fails when the module does not import it.
    template <class Fn>
    Fn Patch(HMODULE hModule, const char* pszDll, const char* pszFunction, Fn pfnReplacement)
    {
        m_vPatches.push_back(std::make_unique<winecompat::CIatPatch>(
            hModule, pszDll, pszFunction, reinterpret_cast<const void*>(pfnReplacement)));
        EXPECT_TRUE(m_vPatches.back()->IsApplied()) << pszDll << "!" << pszFunction << " is not imported";
        return reinterpret_cast<Fn>(m_vPatches.back()->Original());
    }
    void Clear() { m_vPatches.clear(); }

private:
    std::vector<std::unique_ptr<winecompat::CIatPatch>> m_vPatches;
};

// What a substitute answers for a call that fails: the last error dwError, and result.
template <class T> T WithLastError(DWORD dwError, T result)
{
    ::SetLastError(dwError);
    return result;
}

// Windows reports a junction or symbolic link in the find data: the reparse-point attribute and its tag
// in dwReserved0; Wine makes neither. Until patches are undone, hModule's listings report "Junction" as a
// junction, "DirLink" and "FileLink.txt" as symbolic links and "Deduplicated.bin" as a reparse point
// that holds data and is no link.
void ShowReparsePoints(CPatches& patches, HMODULE hModule);

} // namespace kefltest
