// A program that a test starts, with its output line by line.
#pragma once

#include "lab/state/Handles.h"

#include <windows.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

class ProbeProcess
{
public:
    explicit ProbeProcess(std::wstring commandLine)
    {
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        CreatePipe(&read, &write, &inherited, 0);
        m_output = lab::Handle{read};
        const lab::Handle childEnd{write};
        SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = write;
        PROCESS_INFORMATION process{};
        if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                            &process))
            throw std::runtime_error("cannot start the probe: " + std::to_string(GetLastError()));
        CloseHandle(process.hThread);
        m_process = lab::Handle{process.hProcess};
    }

    // The next line without its end; nothing when the program has ended.
    std::optional<std::string> Line()
    {
        for (;;)
        {
            if (const auto end = m_buffer.find('\n'); end != std::string::npos)
            {
                std::string line = m_buffer.substr(0, end);
                m_buffer.erase(0, end + 1);
                if (!line.empty() && line.back() == '\r')
                    line.pop_back();
                return line;
            }
            char bytes[512];
            DWORD count = 0;
            if (!ReadFile(m_output.get(), bytes, sizeof bytes, &count, nullptr) || count == 0)
                return std::nullopt;
            m_buffer.append(bytes, count);
        }
    }

    // All lines that are left; the program has ended afterwards.
    std::vector<std::string> Rest()
    {
        std::vector<std::string> lines;
        while (auto line = Line())
            lines.push_back(std::move(*line));
        WaitForSingleObject(m_process.get(), INFINITE);
        return lines;
    }

private:
    lab::Handle m_output;
    lab::Handle m_process;
    std::string m_buffer;
};
