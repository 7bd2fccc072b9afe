#pragma once
// Case rules for names that are made of Latin letters: hive names, service names, words of settings. They do not hang
// on a locale; letters that merely fold to Latin ones (the Kelvin sign) are other letters here, as they are to the
// registry.

#include <string>
#include <string_view>

// Lower case of the 26 Latin capitals, character by character.
inline std::wstring LowerCaseCopy(std::wstring_view text)
{
    std::wstring copy(text);
    for (wchar_t& character : copy)
    {
        if (character >= L'A' && character <= L'Z')
        {
            character = static_cast<wchar_t>(character - L'A' + L'a');
        }
    }
    return copy;
}

inline bool EqualIgnoringLatinCase(std::wstring_view left, std::wstring_view right)
{
    return LowerCaseCopy(left) == LowerCaseCopy(right);
}
