// kefl_test_child.exe, the command of the command runner's tests. Its arguments are steps done in
// order: --pid writes its process id and a line feed, --sleep MS, --exit CODE; any other argument is
// written as it is (control characters too), straight to the standard output handle.
#include <windows.h>

#include <string>

int main(int argc, char** argv)
{
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
