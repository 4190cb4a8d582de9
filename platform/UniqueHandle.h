#pragma once
// Small move-only owners for Windows handles and allocations: one type per release function, the
// invalid value explicit. Releasing never changes the thread's last error, so a caller can close
// what it holds and still report the error of the call that failed.
#include <windows.h>

#include <utility>

namespace morvane
{

// Saves the thread's last error and puts it back when the scope ends.
class CLastErrorGuard
{
public:
    CLastErrorGuard() noexcept : m_dwSaved(::GetLastError()) {}
    ~CLastErrorGuard() { ::SetLastError(m_dwSaved); }
    CLastErrorGuard(const CLastErrorGuard&) = delete;
    CLastErrorGuard& operator=(const CLastErrorGuard&) = delete;

private:
    DWORD m_dwSaved;
};

template <typename Traits> class CUniqueResource
{
public:
    using pointer = typename Traits::pointer;

    CUniqueResource() noexcept : m_h(Traits::Invalid()) {}
    explicit CUniqueResource(pointer h) noexcept : m_h(h) {}
    CUniqueResource(CUniqueResource&& other) noexcept : m_h(other.release()) {}
    CUniqueResource& operator=(CUniqueResource&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    CUniqueResource(const CUniqueResource&) = delete;
    CUniqueResource& operator=(const CUniqueResource&) = delete;
    ~CUniqueResource() { reset(); }

    pointer get() const noexcept { return m_h; }
    bool is_valid() const noexcept { return m_h != Traits::Invalid(); }
    explicit operator bool() const noexcept { return is_valid(); }

    // Gives up ownership without releasing.
    pointer release() noexcept { return std::exchange(m_h, Traits::Invalid()); }

    void reset(pointer h = Traits::Invalid()) noexcept
    {
        if (is_valid())
        {
            CLastErrorGuard keepError;
            Traits::Close(m_h);
        }
        m_h = h;
    }

    // For out-parameters of Windows calls: releases what is held first.
    pointer* put() noexcept
    {
        reset();
        return &m_h;
    }
    pointer* addressof() noexcept { return &m_h; }

private:
    pointer m_h;
};

struct CFileHandleTraits
{
    using pointer = HANDLE;
    static pointer Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(pointer h) noexcept { ::CloseHandle(h); }
};
// Processes, threads, mutexes, events and tokens use NULL as "no handle".
struct CKernelHandleTraits
{
    using pointer = HANDLE;
    static pointer Invalid() noexcept { return nullptr; }
    static void Close(pointer h) noexcept { ::CloseHandle(h); }
};
struct CFindHandleTraits
{
    using pointer = HANDLE;
    static pointer Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(pointer h) noexcept { ::FindClose(h); }
};
struct CLocalMemTraits
{
    using pointer = HLOCAL;
    static pointer Invalid() noexcept { return nullptr; }
    static void Close(pointer h) noexcept { ::LocalFree(h); }
};
struct CSidTraits
{
    using pointer = PSID;
    static pointer Invalid() noexcept { return nullptr; }
    static void Close(pointer h) noexcept { ::FreeSid(h); }
};
struct CRegKeyTraits
{
    using pointer = HKEY;
    static pointer Invalid() noexcept { return nullptr; }
    static void Close(pointer h) noexcept { ::RegCloseKey(h); }
};
struct CLibraryTraits
{
    using pointer = HMODULE;
    static pointer Invalid() noexcept { return nullptr; }
    static void Close(pointer h) noexcept { ::FreeLibrary(h); }
};

using CUniqueFile = CUniqueResource<CFileHandleTraits>;
using CUniqueHandle = CUniqueResource<CKernelHandleTraits>;
using CUniqueFind = CUniqueResource<CFindHandleTraits>;
using CUniqueLocalMem = CUniqueResource<CLocalMemTraits>;
using CUniqueSid = CUniqueResource<CSidTraits>;
using CUniqueRegKey = CUniqueResource<CRegKeyTraits>;
using CUniqueLibrary = CUniqueResource<CLibraryTraits>;

// A started process's two handles, owned: CreateProcess fills them through put(), and both are
// closed with the object unless taken.
class CUniqueProcessInformation
{
public:
    CUniqueProcessInformation() noexcept = default;
    ~CUniqueProcessInformation() { reset(); }
    CUniqueProcessInformation(const CUniqueProcessInformation&) = delete;
    CUniqueProcessInformation& operator=(const CUniqueProcessInformation&) = delete;

    PROCESS_INFORMATION* put() noexcept
    {
        reset();
        return &m_pi;
    }
    const PROCESS_INFORMATION& get() const noexcept { return m_pi; }
    // Gives up the process handle, for an owner of its own.
    HANDLE ReleaseProcess() noexcept { return std::exchange(m_pi.hProcess, nullptr); }
    void reset() noexcept
    {
        CLastErrorGuard keepError;
        for (HANDLE h : {m_pi.hThread, m_pi.hProcess})
            if (h)
                ::CloseHandle(h);
        m_pi = {};
    }

private:
    PROCESS_INFORMATION m_pi{};
};

// Runs a cleanup when the scope ends, unless dismissed.
template <typename F> class CScopeExit
{
public:
    explicit CScopeExit(F fn) : m_fn(std::move(fn)) {}
    ~CScopeExit()
    {
        if (m_bActive)
            m_fn();
    }
    void Dismiss() noexcept { m_bActive = false; }
    CScopeExit(const CScopeExit&) = delete;
    CScopeExit& operator=(const CScopeExit&) = delete;

private:
    F m_fn;
    bool m_bActive = true;
};

} // namespace morvane
