#pragma once
// The edge of the library: what an entry point's work throws ends here, as a failed answer with a
// text, never in the host. A failed allocation is the one a restore meets (Windows PE has no page
// file, and a walk of millions of files lives in memory), and the host must still get its message
// and be able to end the session.
#include <cstddef>
#include <exception>
#include <new>

namespace morvane
{

// The failure's text without allocating: "Memory allocation error" for a failed allocation, the
// exception's own (ASCII) text otherwise.
class CEdgeFailure
{
public:
    static constexpr const wchar_t* kMemory = L"Memory allocation error";

    explicit CEdgeFailure(const char* pszWhat) noexcept
    {
        size_t i = 0;
        for (; pszWhat && pszWhat[i] != '\0' && i + 1 < kChars; ++i)
            m_wszText[i] = static_cast<unsigned char>(pszWhat[i]) < 0x80 ? pszWhat[i] : L'?';
        m_wszText[i] = L'\0';
    }
    explicit CEdgeFailure(const wchar_t* pwszWhat) noexcept : CEdgeFailure("")
    {
        size_t i = 0;
        for (; pwszWhat[i] != L'\0' && i + 1 < kChars; ++i)
            m_wszText[i] = pwszWhat[i];
        m_wszText[i] = L'\0';
    }
    const wchar_t* Text() const noexcept { return m_wszText; }

private:
    static constexpr size_t kChars = 200;
    wchar_t m_wszText[kChars];
};

// Answers work(), or, when it throws, failed(const CEdgeFailure&): failed must not throw, so it
// writes into what was made before (a trace line, a fixed error text) and answers the failure
// value (false, null, an error code).
template <class Work, class Failed> auto CatchAtEdge(Work work, Failed failed) noexcept -> decltype(work())
{
    try
    {
        return work();
    }
    catch (const std::bad_alloc&)
    {
        return failed(CEdgeFailure(CEdgeFailure::kMemory));
    }
    catch (const std::exception& e)
    {
        return failed(CEdgeFailure(e.what()));
    }
    catch (...)
    {
        return failed(CEdgeFailure("Unknown exception"));
    }
}

} // namespace morvane
