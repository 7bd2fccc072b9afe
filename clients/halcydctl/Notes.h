#pragma once

#include <windows.h>

#include <deque>
#include <memory>
#include <string>

#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"

// Lines of standard input as they come, for a program that tells what it does while the client shows what comes of it.
//
// The reading thread cannot be called back from its wait: it shares its state with this object and ends with the input
// or the process.
class NoteReader
{
public:
    // Starts the thread if `wanted`; otherwise no note ever comes.
    explicit NoteReader(bool wanted);

    // Auto-reset: set whenever a line has come. Take until Pop says no.
    [[nodiscard]] HANDLE Available() const noexcept { return state->available.get(); }
    [[nodiscard]] bool Pop(std::wstring& note);

private:
    struct State
    {
        UniqueHandle available{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
        PlainMutex mutex;
        std::deque<std::wstring> notes GUARDED_BY(mutex);

        void Push(std::string_view utf8);
        void ReadInput();
    };

    std::shared_ptr<State> state = std::make_shared<State>();
};
