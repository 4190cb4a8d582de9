// kefl_test_child.exe, the command of the command runner's tests. Its arguments are steps done in
// order: --pid writes its process id and a line feed, --sleep MS, --exit CODE; any other argument is
// written as it is (control characters too), straight to the standard output handle.
// As keflhost's stand-in restore process it writes the file KEFL_TEST_CHILD_SCRIPT names instead,
// waits KEFL_TEST_CHILD_SLEEP ms and ends with KEFL_TEST_CHILD_EXIT (all from the environment).
#include <windows.h>

#include <fstream>
#include <iterator>
#include <string>

int main(int argc, char** argv)
{
    if (char szScript[MAX_PATH]; ::GetEnvironmentVariableA("KEFL_TEST_CHILD_SCRIPT", szScript, MAX_PATH))
    {
        std::ifstream script(szScript, std::ios::binary);
        const std::string sOut((std::istreambuf_iterator<char>(script)), std::istreambuf_iterator<char>());
        DWORD cbWritten = 0;
        ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), sOut.data(), static_cast<DWORD>(sOut.size()),
                    &cbWritten, nullptr);
        if (char szSleep[32]; ::GetEnvironmentVariableA("KEFL_TEST_CHILD_SLEEP", szSleep, sizeof(szSleep)))
            ::Sleep(std::stoul(szSleep));
        char szExit[32] = "0";
        ::GetEnvironmentVariableA("KEFL_TEST_CHILD_EXIT", szExit, sizeof(szExit));
        return static_cast<int>(std::stoul(szExit, nullptr, 0));
    }
    for (int i = 1; i < argc; ++i)
    {
        const std::string sStep = argv[i];
        if (sStep == "--exit" && i + 1 < argc)
            return std::stoi(argv[i + 1]);
        const std::string sOut = sStep == "--pid" ? std::to_string(::GetCurrentProcessId()) + "\n" : sStep;
        DWORD cbWritten = 0;
        if (sStep == "--sleep" && i + 1 < argc)
            ::Sleep(std::stoul(argv[++i]));
        else
            ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), sOut.data(), static_cast<DWORD>(sOut.size()),
                        &cbWritten, nullptr);
    }
    return 0;
}
