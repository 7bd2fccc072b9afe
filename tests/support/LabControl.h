// The lab's control program in the prepared Windows.
#pragma once

#include <string>

// The program as a command line begins with it, a blank behind it.
inline constexpr wchar_t kLabControl[] = L"\"C:\\Program Files\\HalcydLab\\labctl.exe\" ";

// Runs it to its end; the test fails when it does. Returns what it printed.
std::string Lab(const std::wstring& arguments);
