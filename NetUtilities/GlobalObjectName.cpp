#include "NetUtilities/GlobalObjectName.h"

#include <string>

#include "NetUtilities/Format.h"

const wchar_t* GlobalObjectName(const wchar_t* name)
{
    static std::wstring text;
    text = FormatText(L"Global\\{}", name);
    return text.c_str();
}
