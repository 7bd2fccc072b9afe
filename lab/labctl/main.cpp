// labctl: changes the simulated machine, and shows what happened in it.
#include "lab/labctl/Verbs.h"
#include "lab/state/Text.h"

#include <windows.h>

int wmain(int count, wchar_t** words)
{
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> arguments;
    for (int i = 1; i < count; ++i)
    {
        arguments.push_back(lab::Utf8(words[i]));
    }
    return lab::ctl::Run(arguments);
}
