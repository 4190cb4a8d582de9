#pragma once
// Replaces one function in a loaded module's import address table for the life of the object.
// Our host and the tests use it to make KEFL.dll see a Windows behaviour that Wine lacks, or that
// a test must force (a failing call, a locked file, a wait that times out); every use names the
// behaviour it stands for. The module's other imports and every other module stay untouched.
#include <windows.h>

namespace winecompat
{

class CIatPatch
{
public:
    // pszDll is matched without regard to case ("KERNEL32.dll"); the import must be by name.
    CIatPatch(HMODULE hModule, const char* pszDll, const char* pszFunction, const void* pfnReplacement);
    ~CIatPatch();
    CIatPatch(const CIatPatch&) = delete;
    CIatPatch& operator=(const CIatPatch&) = delete;

    bool IsApplied() const { return m_ppSlot != nullptr; }
    // The function that was imported before the patch, for replacements that pass calls on.
    void* Original() const { return m_pOriginal; }

private:
    void** m_ppSlot = nullptr;
    void* m_pOriginal = nullptr;
};

} // namespace winecompat
