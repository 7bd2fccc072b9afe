// The way to a service that was started again after a crash. Wine's activation goes on handing out the class objects of
// the process that died, so a client that wants the living one asks the lab: the request
//     { "channel": "control", "type": "reference", "id": N, "class": "{...}" }
// is answered by { "channel": "control", "type": "done", "id": N, "result": HRESULT, "reference": "hex" }, the
// marshalled IUnknown of an object that the program itself made. To be unmarshalled once.
#include "lab/shims/Hooks.h"
#include "lab/shims/Shim.h"

#include <objbase.h>

namespace
{

std::string Hex(const unsigned char* bytes, std::size_t count)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
    {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

HRESULT Marshal(IUnknown* object, std::string& reference)
{
    IStream* stream = nullptr;
    HRESULT result = CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    if (FAILED(result))
        return result;
    result = CoMarshalInterface(stream, IID_IUnknown, object, MSHCTX_LOCAL, nullptr, MSHLFLAGS_NORMAL);
    HGLOBAL memory = nullptr;
    STATSTG size{};
    if (SUCCEEDED(result))
        result = stream->Stat(&size, STATFLAG_NONAME);
    if (SUCCEEDED(result))
        result = GetHGlobalFromStream(stream, &memory);
    if (SUCCEEDED(result))
    {
        reference =
            Hex(static_cast<const unsigned char*>(GlobalLock(memory)), static_cast<std::size_t>(size.cbSize.QuadPart));
        GlobalUnlock(memory);
    }
    stream->Release();
    return result;
}

// Called in an apartment. The program's own class objects come before all others.
HRESULT MakeReference(const std::string& classText, std::string& reference)
{
    CLSID classId{};
    HRESULT result = CLSIDFromString(lab::Wide(classText).c_str(), &classId);
    if (FAILED(result))
        return result;
    IUnknown* object = nullptr;
    result = CoCreateInstance(classId, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, reinterpret_cast<void**>(&object));
    if (FAILED(result))
        return result;
    result = Marshal(object, reference);
    object->Release();
    return result;
}

} // namespace

void lab::shim::AnswerWithReference(const Json& event)
{
    std::string reference;
    HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(result))
    {
        result = MakeReference(TextField(event, "class"), reference);
        CoUninitialize();
    }
    Machine::Attach().Raise({{{"channel", "control"},
                              {"type", "done"},
                              {"id", event.value("id", 0ULL)},
                              {"result", static_cast<std::uint32_t>(result)},
                              {"reference", reference}}});
}
