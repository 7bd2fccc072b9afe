#pragma once
// Where the client's output goes: a console window or terminal, a pipe, or a file.
//
// A console gets UTF-16 through the console functions, with colours as attributes: that looks the same on every Windows
// and under Wine, whatever its code page. Anything else gets UTF-8, with styling sequences only when colours were asked
// for. Writing is safe from any thread; whole calls do not mix.

#include <windows.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"

enum class ColorChoice
{
    Automatic, // colours on a console only
    Always,
    Never,
};

class Console
{
public:
    explicit Console(ColorChoice choice);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // A line for standard output, its line break added. May carry styling.
    void Line(std::wstring_view styled);
    void Lines(const std::vector<std::wstring>& styled);
    // A line for standard error, never coloured, flushed at once.
    void ErrorLine(std::wstring_view styled);

    // True if output can be drawn over: a console, or a stream that was said to be one by ColorChoice::Always.
    [[nodiscard]] bool CanRedraw() const noexcept { return redraw; }
    // Removes the last `count` lines that were written, if they are still on the screen. Only when CanRedraw.
    void EraseLines(std::size_t count);

    // Columns of the console; for other streams the variable COLUMNS, or 0 for no limit.
    [[nodiscard]] std::size_t Width() const;

private:
    void WriteStyled(std::wstring_view styled) REQUIRES(mutex);
    void WriteBytes(HANDLE stream, std::string_view bytes);

    HANDLE output; // the process's, not owned
    HANDLE error;
    bool console = false;
    bool colored = false;
    bool redraw = false;
    WORD plainAttributes = FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;
    PlainMutex mutex;
};

// The wish of the user to end: Ctrl+C, Ctrl+Break, or the window being closed. One per process.
class Interruption
{
public:
    // From here on those keys no longer end the process but set the event.
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    [[nodiscard]] HANDLE Handle() const noexcept { return event.get(); }
    [[nodiscard]] bool Requested() const noexcept { return WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0; }
    // Forgets a request, so that a second one can be told from the first.
    void Clear() noexcept { ResetEvent(event.get()); }
    // True if it came within the time.
    bool Wait(DWORD milliseconds) const noexcept
    {
        return WaitForSingleObject(event.get(), milliseconds) == WAIT_OBJECT_0;
    }

private:
    static BOOL WINAPI OnControl(DWORD control);
    UniqueHandle event;
};
