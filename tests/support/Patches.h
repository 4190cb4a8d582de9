#pragma once
// Substitutions a test makes in a module's import table, undone together at the end of the test.
#include "support/IatPatch.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace kefltest
{

class CPatches
{
public:
    // Puts pfnReplacement in the place of pszDll!pszFunction in hModule's imports and returns the
    // function it replaced (for a replacement that passes calls on); a test fails when the module
    // does not import it.
    template <class Fn>
    Fn Patch(HMODULE hModule, const char* pszDll, const char* pszFunction, Fn pfnReplacement)
    {
        m_vPatches.push_back(std::make_unique<CIatPatch>(hModule, pszDll, pszFunction,
                                                         reinterpret_cast<const void*>(pfnReplacement)));
        EXPECT_TRUE(m_vPatches.back()->IsApplied()) << pszDll << "!" << pszFunction << " is not imported";
        return reinterpret_cast<Fn>(m_vPatches.back()->Original());
    }
    void Clear() { m_vPatches.clear(); }

private:
    std::vector<std::unique_ptr<CIatPatch>> m_vPatches;
};

} // namespace kefltest
