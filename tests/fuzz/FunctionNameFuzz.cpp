// Function signatures: any text gives a name that is no longer than the text allows, in bounded time.
#include "NetUtilities/FunctionName.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view signature = FuzzInput::Narrow(data, size);
    const std::wstring name = ShortFunctionName(signature);
    // Each character may stand for an unnamed namespace, or for a template parameter that is as long as the text.
    PROPERTY(name.size() <= (size + 32) * (size + 32));
    PROPERTY(ClassPartOf(name).size() <= name.size());
    const bool namesConvention = signature.find("__cdecl") != std::string_view::npos; // that rule asks for a ")" only
    if (!namesConvention && signature.find('(') == std::string_view::npos)
    {
        PROPERTY(name.empty() || signature.find("lambda") != std::string_view::npos);
    }
    return 0;
}
