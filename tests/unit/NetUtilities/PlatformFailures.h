#pragma once
// Lets single calls of the platform fail, with the code under test unchanged: this program defines the import slots (or
// the import library's entries) of the functions named in PlatformFailures.cpp. Without a failure to come every call
// goes to the platform.

#include <windows.h>

#include <string>

namespace PlatformFailures
{
// The call number `nth` of `function` from now on fails with `code`, and so do the `times` - 1 calls behind it. Calls
// of RegQueryValueExW count only for the value named by `detail`.
void Fail(const std::string& function, int nth, DWORD code, int times = 1, const std::wstring& detail = {});
// How many calls failed since Reset.
[[nodiscard]] int Failed(const std::string& function);
void Reset();
} // namespace PlatformFailures

// A fixture's member: nothing fails any more behind it.
class PlatformFailureScope
{
public:
    PlatformFailureScope() { PlatformFailures::Reset(); }
    ~PlatformFailureScope() { PlatformFailures::Reset(); }
    PlatformFailureScope(const PlatformFailureScope&) = delete;
    PlatformFailureScope& operator=(const PlatformFailureScope&) = delete;
};
