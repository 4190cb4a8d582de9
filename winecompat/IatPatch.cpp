#include "winecompat/IatPatch.h"

#include <cstring>

namespace winecompat
{
namespace
{

void WriteSlot(void** ppSlot, void* pValue)
{
    DWORD dwOld = 0;
    ::VirtualProtect(ppSlot, sizeof(void*), PAGE_READWRITE, &dwOld);
    *ppSlot = pValue;
    ::VirtualProtect(ppSlot, sizeof(void*), dwOld, &dwOld);
}

} // namespace

CIatPatch::CIatPatch(HMODULE hModule, const char* pszDll, const char* pszFunction, const void* pfnReplacement)
{
    auto* pBase = reinterpret_cast<BYTE*>(hModule);
    auto* pDos = reinterpret_cast<IMAGE_DOS_HEADER*>(pBase);
    auto* pNt = reinterpret_cast<IMAGE_NT_HEADERS*>(pBase + pDos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = pNt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0)
        return;
    for (auto* pDesc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(pBase + dir.VirtualAddress);
         pDesc->Name != 0; ++pDesc)
    {
        if (_stricmp(reinterpret_cast<const char*>(pBase + pDesc->Name), pszDll) != 0)
            continue;
        auto* pNames = reinterpret_cast<IMAGE_THUNK_DATA*>(pBase + pDesc->OriginalFirstThunk);
        auto* pAddresses = reinterpret_cast<IMAGE_THUNK_DATA*>(pBase + pDesc->FirstThunk);
        for (; pNames->u1.AddressOfData != 0; ++pNames, ++pAddresses)
        {
            if (IMAGE_SNAP_BY_ORDINAL(pNames->u1.Ordinal))
                continue;
            auto* pByName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(pBase + pNames->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(pByName->Name), pszFunction) != 0)
                continue;
            m_ppSlot = reinterpret_cast<void**>(&pAddresses->u1.Function);
            m_pOriginal = *m_ppSlot;
            WriteSlot(m_ppSlot, const_cast<void*>(pfnReplacement));
            return;
        }
    }
}

CIatPatch::~CIatPatch()
{
    if (m_ppSlot)
        WriteSlot(m_ppSlot, m_pOriginal);
}

} // namespace winecompat
