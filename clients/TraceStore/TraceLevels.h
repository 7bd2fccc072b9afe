#pragma once
// The trace levels: a global one and one per source, kept in the registry under HKEY_LOCAL_MACHINE.
//
// Values of "Software\QRLS\Sorvane\TraceStore\Levels": DWORD "Global" and one DWORD per source, named by its number.
// Without "Global" the DWORD "TraceLevel" of "Software\QRLS\Sorvane" holds, which is also what a process falls back to
// that cannot ask; without that, 4. All safe from any thread.

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>

class TraceLevels
{
public:
    static constexpr std::uint16_t SourceCount = 37; // sources 0 to 36
    static constexpr std::uint16_t DefaultLevel = 4;
    static constexpr std::uint16_t HighestLevel = 9; // 6 is the highest in use

    // Reads the registry.
    TraceLevels();

    [[nodiscard]] std::uint16_t Global() const noexcept { return global.load(std::memory_order_relaxed); }
    // E_INVALIDARG for a source above 36.
    [[nodiscard]] HRESULT Source(std::uint16_t source, std::uint16_t& level) const noexcept;

    // Kept first, then in force: a failure to write the registry comes back as its HRESULT and changes nothing.
    [[nodiscard]] HRESULT SetGlobal(std::uint16_t level) noexcept;
    [[nodiscard]] HRESULT SetSource(std::uint16_t source, std::uint16_t level) noexcept;

private:
    std::atomic<std::uint16_t> global{DefaultLevel};
    std::array<std::atomic<std::uint16_t>, SourceCount> sources{};
};
