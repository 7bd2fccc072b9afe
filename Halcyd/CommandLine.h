#pragma once

#include <string_view>

// What a start of the process is asked to do.
enum class CommandLineWord
{
    None,        // the normal start: service or plain server
    UnregServer, // take the registration away
    RegServer,   // register the COM server
    Service,     // register the COM server and the Windows service
};

// Scans a whole command line, the program's path included. A token starts behind each "-" and each "/", wherever it
// stands, and reaches to the end of the line; the first token that equals a word, in any case, wins. So a word with
// anything behind it does not count, and the program's own path, which may hold both characters, does no harm.
[[nodiscard]] CommandLineWord FindCommandLineWord(std::wstring_view commandLine) noexcept;
