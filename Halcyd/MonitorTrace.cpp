#include "Halcyd/MonitorTrace.h"

#include <string>

namespace MonitorTrace
{
void Banner(std::wstring_view text, wchar_t fill, std::size_t width)
{
    const std::wstring row(width, fill);
    LogMessage(Log::Source::NetMon, 4, L"\n" + row + L"\n" + std::wstring(text) + L"\n" + row);
}

void StarBanner(std::wstring_view text)
{
    Banner(text, L'*', 56);
}

void MiniportClosingProblem()
{
    Banner(L"# PROBLEM CLOSING THE HANDLE FOR THE MINIPORT DRIVER", L'#', 71);
}
} // namespace MonitorTrace
