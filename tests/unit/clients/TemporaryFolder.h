#pragma once

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

// An empty folder of its own for one test, removed at its end.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        static std::atomic<unsigned> count{0};
        path = std::filesystem::temp_directory_path() /
               (L"halcyd-clients-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
        std::filesystem::create_directories(path);
    }
    ~TemporaryFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& Path() const { return path; }
    [[nodiscard]] std::string Read(const std::wstring& name) const
    {
        std::ifstream file(path / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    void Write(const std::wstring& name, const std::string& bytes) const
    {
        std::ofstream file(path / name, std::ios::binary);
        file << bytes;
    }

private:
    std::filesystem::path path;
};
