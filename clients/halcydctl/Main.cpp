// Entry of halcydctl.exe, the console client.

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <string>
#include <vector>

#include "NetUtilities/ComApartment.h"
#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Text.h"

int wmain(int count, wchar_t** arguments)
{
    std::vector<std::string> words;
    for (int index = 1; index < count; ++index)
    {
        words.push_back(Text::ToUtf8(arguments[index]));
    }
    const ParseOutcome outcome = ParseCommandLine(words);
    if (!outcome.options)
    {
        return Commands::Refuse(outcome, std::ranges::find(words, "--json") != words.end());
    }
    const ComApartment apartment(COINIT_MULTITHREADED);
    // The service acts in its client's name where it must, so it is allowed to impersonate.
    CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                         EOAC_NONE, nullptr);
    return Commands::Run(*outcome.options);
}
