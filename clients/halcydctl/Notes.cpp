#include "clients/halcydctl/Notes.h"

#include <thread>

#include "clients/halcydctl/Text.h"

NoteReader::NoteReader(bool wanted)
{
    if (wanted)
    {
        std::thread([shared = state] { shared->ReadInput(); }).detach();
    }
}

bool NoteReader::Pop(std::wstring& note)
{
    MutexLock lock(state->mutex);
    if (state->notes.empty())
    {
        return false;
    }
    note = std::move(state->notes.front());
    state->notes.pop_front();
    return true;
}

void NoteReader::State::Push(std::string_view utf8)
{
    while (!utf8.empty() && (utf8.back() == '\r' || utf8.back() == '\n'))
    {
        utf8.remove_suffix(1);
    }
    {
        MutexLock lock(mutex);
        notes.push_back(Text::Printable(Text::FromUtf8(utf8)));
    }
    SetEvent(available.get());
}

void NoteReader::State::ReadInput()
{
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    std::string text;
    char block[512];
    DWORD read = 0;
    while (ReadFile(input, block, sizeof block, &read, nullptr) && read != 0)
    {
        text.append(block, read);
        for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n'))
        {
            Push(std::string_view(text).substr(0, end));
            text.erase(0, end + 1);
        }
    }
    if (!text.empty())
    {
        Push(text);
    }
}
