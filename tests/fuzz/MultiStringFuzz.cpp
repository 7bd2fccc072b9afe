// REG_MULTI_SZ buffers: no string of the list is empty or holds a NUL, and joining gives back what parsing takes apart.
#include "NetUtilities/MultiString.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto fromBytes = ParseMultiString(FuzzInput::Bytes(data, size));
    std::size_t characters = 0;
    for (const std::wstring& text : fromBytes)
    {
        PROPERTY(!text.empty());
        PROPERTY(text.find(L'\0') == std::wstring::npos);
        characters += text.size();
    }
    PROPERTY(characters * 2 <= size);
    PROPERTY(fromBytes == ParseMultiString(std::wstring_view(FuzzInput::Wide(data, size))));

    const std::wstring joined = JoinMultiString(fromBytes);
    PROPERTY(joined.ends_with(L'\0'));
    PROPERTY(ParseMultiString(std::wstring_view(joined)) == fromBytes);
    return 0;
}
