#pragma once

#include <string>
#include <string_view>

// The folder of a module's path, with the backslash at its end; a leading quote is removed. Text without a backslash
// gives itself.
[[nodiscard]] std::wstring_view FolderOfModulePath(std::wstring_view path) noexcept;

// The folder of the client's library if this process has it loaded, else of the process. Found once and kept.
[[nodiscard]] const wchar_t* GetModuleDirectory();
