// Ini files: whatever the bytes, lines are clean, units have 16 bits, look-ups and numbers end.
#include <stdexcept>

#include "NetUtilities/IniText.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto lines = IniText::Lines(FuzzInput::Narrow(data, size));
    for (const std::wstring& line : lines)
    {
        PROPERTY(!line.empty());
        PROPERTY(line.front() != L';');
        for (const wchar_t unit : line)
        {
            PROPERTY(static_cast<std::uint32_t>(unit) <= 0xFFFF);
            PROPERTY(unit != L'\n');
        }
    }
    if (const auto value = IniText::Find(lines, L"VPN", L"Mask"))
    {
        try
        {
            (void)IniText::ToNumber(*value);
        }
        catch (const std::invalid_argument&)
        {
        }
        catch (const std::out_of_range&)
        {
        }
    }
    return 0;
}
