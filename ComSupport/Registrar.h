#pragma once
// Registry scripts (text resources of type REGISTRY), run by the platform's registrar.

#include <windows.h>

#include <string>
#include <string_view>

// Values of the two tokens that a script may use.
struct RegistryScriptTokens
{
    std::wstring module;    // "Module": the path, in double quotes for the process's executable
    std::wstring moduleRaw; // "Module_Raw": the bare path
};

// A script delimits text with single quotes, so one inside the path is doubled.
[[nodiscard]] RegistryScriptTokens MakeRegistryScriptTokens(std::wstring_view path, bool isExecutable);

// Runs the REGISTRY resource of the module at that path, to write its keys or to remove them.
// The calling thread has to be in an apartment. Returns the registrar's code.
[[nodiscard]] HRESULT RunRegistryScript(const wchar_t* path, bool isExecutable, UINT resource,
                                        bool registering) noexcept;
