#pragma once

#include <memory>
#include <string>

#include "NetUtilities/Mutex.h"
#include "NetUtilities/Singleton.h"

// Where things are on disk. Each text is found on first request and kept; a failure leaves it empty and it is asked
// again next time. Any thread.
class PathData : public Singleton<PathData>
{
public:
    PathData() = default;
    PathData(const PathData&) = delete;
    PathData& operator=(const PathData&) = delete;

    [[nodiscard]] static std::shared_ptr<PathData> Instance();

    // The executable's folder; if that lies in the system folder, the registry's "Path" instead.
    [[nodiscard]] std::wstring GetInstallFolder();
    // The product's folder in the machine-wide program data; made on first request, with its subfolder "Data".
    [[nodiscard]] std::wstring GetDataFolder();
    [[nodiscard]] std::wstring GetSystemFolder();
    [[nodiscard]] std::wstring GetExecutablePath();
    // The file that holds this code: the executable itself, or the DLL it was linked into.
    [[nodiscard]] std::wstring GetModulePath();

private:
    RecursiveMutex lock; // recursive: one path is found by way of another
    std::wstring installFolder GUARDED_BY(lock);
    std::wstring dataFolder GUARDED_BY(lock);
    std::wstring systemFolder GUARDED_BY(lock);
    std::wstring executablePath GUARDED_BY(lock);
    std::wstring modulePath GUARDED_BY(lock);
};

// Copies of the singleton's texts; empty if it is not there.
[[nodiscard]] std::wstring GetInstallFolder();
[[nodiscard]] std::wstring GetDataFolder();
[[nodiscard]] std::wstring GetSystemFolder();
[[nodiscard]] std::wstring GetExecutablePath();
[[nodiscard]] std::wstring GetModulePath();

namespace PathText
{
// The text before the last backslash or slash; empty without one.
[[nodiscard]] std::wstring ParentFolder(const std::wstring& path);
// The text behind the last backslash or slash.
[[nodiscard]] std::wstring FileName(const std::wstring& path);
// The file name without its extension.
[[nodiscard]] std::wstring BaseName(const std::wstring& path);
// Whether the executable's folder holds the system folder's text, in any case. An unknown (empty) one counts as no.
[[nodiscard]] bool RunsFromSystemFolder(const std::wstring& executableFolder, const std::wstring& systemFolder);
} // namespace PathText
