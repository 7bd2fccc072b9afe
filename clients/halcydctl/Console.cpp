#include "clients/halcydctl/Console.h"

#include <algorithm>
#include <atomic>

#include "clients/halcydctl/Text.h"

namespace
{
std::atomic<HANDLE> interruptionEvent{nullptr};

bool IsConsole(HANDLE stream)
{
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode) != FALSE;
}

WORD AttributesOf(Text::Style style, WORD plain)
{
    const WORD background = static_cast<WORD>(plain & 0xFFF0);
    constexpr WORD Bright = FOREGROUND_INTENSITY;
    switch (style)
    {
    case Text::Style::Bold:
        return static_cast<WORD>(plain | Bright);
    case Text::Style::Faint:
        return static_cast<WORD>(background | Bright);
    case Text::Style::Green:
        return static_cast<WORD>(background | FOREGROUND_GREEN | Bright);
    case Text::Style::Yellow:
        return static_cast<WORD>(background | FOREGROUND_RED | FOREGROUND_GREEN | Bright);
    case Text::Style::Red:
        return static_cast<WORD>(background | FOREGROUND_RED | Bright);
    case Text::Style::Cyan:
        return static_cast<WORD>(background | FOREGROUND_GREEN | FOREGROUND_BLUE | Bright);
    case Text::Style::Magenta:
        return static_cast<WORD>(background | FOREGROUND_RED | FOREGROUND_BLUE | Bright);
    case Text::Style::Plain:
        break;
    }
    return plain;
}
} // namespace

Console::Console(ColorChoice choice) : output(GetStdHandle(STD_OUTPUT_HANDLE)), error(GetStdHandle(STD_ERROR_HANDLE))
{
    console = IsConsole(output);
    colored = choice == ColorChoice::Always || (choice == ColorChoice::Automatic && console);
    redraw = console || choice == ColorChoice::Always;
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (console && GetConsoleScreenBufferInfo(output, &info))
    {
        plainAttributes = info.wAttributes;
    }
}

void Console::Line(std::wstring_view styled)
{
    Lines({std::wstring(styled)});
}

void Console::Lines(const std::vector<std::wstring>& styled)
{
    std::wstring all;
    for (const std::wstring& line : styled)
    {
        all += line;
        all += L'\n';
    }
    MutexLock lock(mutex);
    WriteStyled(all);
}

void Console::ErrorLine(std::wstring_view styled)
{
    const std::wstring plain = Text::WithoutStyles(styled) + L"\n";
    MutexLock lock(mutex);
    DWORD written = 0;
    if (IsConsole(error))
    {
        WriteConsoleW(error, plain.data(), static_cast<DWORD>(plain.size()), &written, nullptr);
    }
    else
    {
        WriteBytes(error, Text::ToUtf8(plain));
    }
}

void Console::WriteStyled(std::wstring_view styled)
{
    if (!console)
    {
        WriteBytes(output, Text::ToUtf8(colored ? std::wstring(styled) : Text::WithoutStyles(styled)));
        return;
    }
    for (const Text::Segment& segment : Text::Segments(styled))
    {
        if (colored)
        {
            SetConsoleTextAttribute(output, AttributesOf(segment.style, plainAttributes));
        }
        DWORD written = 0;
        WriteConsoleW(output, segment.text.data(), static_cast<DWORD>(segment.text.size()), &written, nullptr);
    }
    if (colored)
    {
        SetConsoleTextAttribute(output, plainAttributes);
    }
}

void Console::WriteBytes(HANDLE stream, std::string_view bytes)
{
    while (!bytes.empty())
    {
        DWORD written = 0;
        const DWORD piece = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 0x100000));
        if (!WriteFile(stream, bytes.data(), piece, &written, nullptr) || written == 0)
        {
            return; // the reader has gone
        }
        bytes.remove_prefix(written);
    }
}

void Console::EraseLines(std::size_t count)
{
    if (!redraw || count == 0)
    {
        return;
    }
    MutexLock lock(mutex);
    if (!console)
    {
        WriteBytes(output, "\x1b[" + std::to_string(count) + "A\r\x1b[J");
        return;
    }
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!GetConsoleScreenBufferInfo(output, &info))
    {
        return;
    }
    const SHORT back =
        static_cast<SHORT>(std::min<std::size_t>(count, static_cast<std::size_t>(info.dwCursorPosition.Y)));
    const COORD start{0, static_cast<SHORT>(info.dwCursorPosition.Y - back)};
    const DWORD cells = static_cast<DWORD>(back) * static_cast<DWORD>(info.dwSize.X);
    DWORD filled = 0;
    FillConsoleOutputCharacterW(output, L' ', cells, start, &filled);
    FillConsoleOutputAttribute(output, plainAttributes, cells, start, &filled);
    SetConsoleCursorPosition(output, start);
}

std::size_t Console::Width() const
{
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (console && GetConsoleScreenBufferInfo(output, &info))
    {
        // The last column stays free: a full line would break by itself.
        return static_cast<std::size_t>(std::max(info.srWindow.Right - info.srWindow.Left, 20));
    }
    wchar_t columns[8] = L"";
    const DWORD length = GetEnvironmentVariableW(L"COLUMNS", columns, 8);
    const unsigned long width = length != 0 && length < 8 ? wcstoul(columns, nullptr, 10) : 0;
    return redraw && width >= 40 ? width - 1 : 0;
}

Interruption::Interruption() : event(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{
    interruptionEvent = event.get();
    SetConsoleCtrlHandler(OnControl, TRUE);
}

Interruption::~Interruption()
{
    SetConsoleCtrlHandler(OnControl, FALSE);
    interruptionEvent = nullptr;
}

BOOL WINAPI Interruption::OnControl(DWORD control)
{
    if (HANDLE handle = interruptionEvent)
    {
        SetEvent(handle);
        if (control == CTRL_CLOSE_EVENT || control == CTRL_LOGOFF_EVENT || control == CTRL_SHUTDOWN_EVENT)
        {
            Sleep(4000); // the system ends the process when this returns: leave the main thread the time to clean up
        }
        return TRUE;
    }
    return FALSE;
}
