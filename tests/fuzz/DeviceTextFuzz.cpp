// Device properties and hardware ids from bytes of any kind.
#include "NetUtilities/DeviceText.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const std::uint32_t type = data[0] % 12;
    const auto strings = DeviceText::PropertyStrings(type, FuzzInput::Bytes(data + 1, size - 1));
    PROPERTY(strings.has_value() == (type == 1 || type == 4 || type == 7));
    if (strings)
    {
        std::wstring vid;
        std::wstring pid;
        if (DeviceText::FindUsbIdentity(*strings, vid, pid))
        {
            PROPERTY(vid.starts_with(L"vid_") && vid.find_first_of(L"_&", 4) == std::wstring::npos);
            PROPERTY(pid.starts_with(L"pid_") && pid.find_first_of(L"_&", 4) == std::wstring::npos);
        }
    }
    return 0;
}
