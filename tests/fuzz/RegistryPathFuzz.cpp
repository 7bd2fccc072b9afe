// Registry paths: the parts put together again give the path.
#include "NetUtilities/MultiString.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::wstring path = FuzzInput::Wide(data, size);
    const bool hasSeparator = path.find(L'\\') != std::wstring::npos;

    const FullPathParts parts = SplitFullPath(path);
    PROPERTY(parts.valid == hasSeparator);
    if (parts.valid)
    {
        PROPERTY(std::wstring(parts.hive) + L"\\" + std::wstring(parts.subkey) == path);
        PROPERTY(parts.hive.find(L'\\') == std::wstring_view::npos);
    }

    std::wstring key = L"left over";
    const std::wstring value = SplitValuePath(path, key);
    if (hasSeparator)
    {
        PROPERTY(key + L"\\" + value == path);
        PROPERTY(value.find(L'\\') == std::wstring::npos);
    }
    else
    {
        PROPERTY(key.empty() && value.empty());
    }
    return 0;
}
