// kefl_test_child.exe: a console program that the command runner's tests start as the command.
// Its arguments are steps done in order:
//   --line TEXT       prints TEXT and a line feed
//   --raw TEXT        prints TEXT as it is, after turning \f \r \n \t and \\ into their characters
//   --repeat N CHAR   prints N copies of the character CHAR and a line feed
//   --pid             prints its process id and a line feed
//   --sleep MS        sleeps MS milliseconds
//   --exit CODE       ends here with exit status CODE
// Without --exit it ends with 0 after the last step; a step it does not know ends it with 64.
// Output goes straight to the standard output handle with WriteFile: bytes as given, no text-mode
// translation and nothing buffered in the program, so every byte is in the pipe once written.
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

constexpr int kUsageError = 64;

bool Write(const std::string& sBytes)
{
    const HANDLE hOut = ::GetStdHandle(STD_OUTPUT_HANDLE);
    size_t cbDone = 0;
    while (cbDone < sBytes.size())
    {
        DWORD cbWritten = 0;
        if (!::WriteFile(hOut, sBytes.data() + cbDone, static_cast<DWORD>(sBytes.size() - cbDone), &cbWritten,
                         nullptr) ||
            cbWritten == 0)
            return false;
        cbDone += cbWritten;
    }
    return true;
}

std::string Unescape(const char* pszText)
{
    std::string s;
    for (const char* p = pszText; *p; ++p)
    {
        if (*p != '\\' || p[1] == '\0')
        {
            s.push_back(*p);
            continue;
        }
        switch (*++p)
        {
        case 'f':
            s.push_back('\f');
            break;
        case 'r':
            s.push_back('\r');
            break;
        case 'n':
            s.push_back('\n');
            break;
        case 't':
            s.push_back('\t');
            break;
        default:
            s.push_back(*p); // "\\" and any other escaped character stand for themselves
            break;
        }
    }
    return s;
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
    {
        const char* pszStep = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (std::strcmp(pszStep, "--line") == 0 && bHasValue)
            Write(std::string(argv[++i]) + "\n");
        else if (std::strcmp(pszStep, "--raw") == 0 && bHasValue)
            Write(Unescape(argv[++i]));
        else if (std::strcmp(pszStep, "--repeat") == 0 && i + 2 < argc && argv[i + 2][0] != '\0')
        {
            const size_t cRepeat = std::strtoul(argv[i + 1], nullptr, 10);
            const char ch = argv[i + 2][0];
            i += 2;
            Write(std::string(cRepeat, ch) + "\n");
        }
        else if (std::strcmp(pszStep, "--pid") == 0)
            Write(std::to_string(::GetCurrentProcessId()) + "\n");
        else if (std::strcmp(pszStep, "--sleep") == 0 && bHasValue)
            ::Sleep(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(pszStep, "--exit") == 0 && bHasValue)
            return static_cast<int>(std::strtoul(argv[++i], nullptr, 10));
        else
            return kUsageError;
    }
    return 0;
}
