// Differential fuzzing of the rules that stand between a client and the registry: the allow-list, the split of a full
// path, the bytes of a multi-string, its parsing, the exception list and the descriptor test. Each answer is compared
// with a plain model that shares no code with the rules.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <span>
#include <string>
#include <vector>

#include "Halcyd/BindingRules.h"
#include "Halcyd/MultiStringBuffer.h"
#include "Halcyd/ServiceModeRules.h"
#include "Halcyd/WriteAllowList.h"
#include "NetUtilities/MultiString.h"

namespace
{
using Text = std::wstring;

const char* const plainRows[] = {
    "hkey_current_user",
    "hkey_local_machine\\software\\qrls",
    "hkey_local_machine\\system\\currentcontrolset\\services\\tcpip\\parameters",
    "hkey_local_machine\\system\\currentcontrolset\\services\\nlasvc\\parameters",
    "hkey_local_machine\\system\\currentcontrolset\\control\\class\\{4d36e972-e325-11ce-bfc1-08002be10318}",
    "hkey_local_machine\\system\\currentcontrolset\\services\\qrlfilt",
};

// --- The models: slow and obvious ---

bool SameLetter(wchar_t found, char wanted)
{
    const auto upper = static_cast<char>(wanted >= 'a' && wanted <= 'z' ? wanted - 32 : wanted);
    return found == static_cast<unsigned char>(wanted) || found == static_cast<unsigned char>(upper);
}

bool StandsAt(const Text& path, std::size_t at, const char* row)
{
    for (; *row != 0; ++row, ++at)
    {
        if (at >= path.size() || !SameLetter(path[at], *row))
        {
            return false;
        }
    }
    return true;
}

bool ModelAllows(const Text& path)
{
    for (std::size_t at = 0; at < path.size(); ++at)
    {
        for (const char* row : plainRows)
        {
            if (StandsAt(path, at, row))
            {
                return true;
            }
        }
    }
    return false;
}

std::vector<std::uint8_t> ModelMultiString(const Text& text)
{
    std::vector<std::uint8_t> bytes;
    for (const wchar_t character : text)
    {
        for (const unsigned byte :
             {static_cast<unsigned>(character) % 256, static_cast<unsigned>(character) / 256 % 256})
        {
            bytes.push_back(static_cast<std::uint8_t>(byte == ',' ? 0 : byte));
        }
    }
    bytes.insert(bytes.end(), 4, 0);
    return bytes;
}

std::vector<Text> ModelParse(const std::vector<std::uint8_t>& bytes)
{
    std::vector<Text> strings;
    Text current;
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2)
    {
        const auto character = static_cast<wchar_t>(bytes[at] + 256 * bytes[at + 1]);
        if (character != 0)
        {
            current += character;
        }
        else if (current.empty())
        {
            return strings;
        }
        else
        {
            strings.push_back(current);
            current.clear();
        }
    }
    if (!current.empty())
    {
        strings.push_back(current);
    }
    return strings;
}

std::vector<Text> Cut(const Text& text, wchar_t separator)
{
    std::vector<Text> parts(1);
    for (const wchar_t character : text)
    {
        if (character == separator)
        {
            parts.emplace_back();
        }
        else
        {
            parts.back() += character;
        }
    }
    return parts;
}

// --- Input ---

// Spells texts out of the fuzzer's bytes; each byte is one choice, and choices beyond the last byte are 0.
class Generator
{
public:
    Generator(const std::uint8_t* data, std::size_t size) : next(data), end(data + size) {}

    unsigned Below(unsigned limit)
    {
        unsigned value = Byte();
        value = limit > 256 ? value * 256 + Byte() : value;
        return value % limit;
    }

    // A path made of pieces that matter, with case changed, characters exchanged, dropped or doubled.
    Text Path()
    {
        Text path;
        for (unsigned piece = Below(4) + 1; piece > 0; --piece)
        {
            path += Piece();
        }
        for (wchar_t& character : path)
        {
            if (character < 128 && Below(3) == 0)
            {
                character = static_cast<wchar_t>(toupper(static_cast<int>(character)));
            }
        }
        for (unsigned change = Below(3); change > 0 && !path.empty(); --change)
        {
            const std::size_t at = Below(static_cast<unsigned>(path.size()));
            switch (Below(6))
            {
            case 0:
                path[at] = Character();
                break;
            case 1:
                path.erase(at, 1);
                break;
            case 2:
                path.insert(at, 1, Character());
                break;
            default:
                break;
            }
        }
        return path;
    }

    Text List()
    {
        Text list;
        for (unsigned length = Below(12); length > 0; --length)
        {
            list += Below(3) == 0 ? L',' : Below(4) == 0 ? Character() : static_cast<wchar_t>(L'a' + Below(3));
        }
        return list;
    }

private:
    Text Piece()
    {
        static const wchar_t* const pieces[] = {L"HKLM",
                                                L"HKCU",
                                                L"HKEY_LOCAL_MACHINE",
                                                L"HKEY_USERS",
                                                L"\\",
                                                L"/",
                                                L"software",
                                                L"\\software\\qrl",
                                                L"system\\currentcontrolset",
                                                L""};
        switch (Below(4))
        {
        case 0:
        {
            const std::string row = plainRows[Below(std::size(plainRows))];
            return Text(row.begin(), row.end());
        }
        case 1:
        {
            const std::string row = plainRows[Below(std::size(plainRows))];
            const std::string part = row.substr(Below(static_cast<unsigned>(row.size())));
            return Text(part.begin(), part.end());
        }
        case 2:
            return Text(1, Character());
        default:
            return pieces[Below(std::size(pieces))];
        }
    }
    wchar_t Character()
    {
        static const wchar_t special[] = {0,      L'\\',  L',',   L'_',   L'{',   L'}',
                                          0x212A, 0x017F, 0x0130, 0x2C41, 0x412C, 0xD800};
        return Below(2) == 0 ? special[Below(std::size(special))] : static_cast<wchar_t>(Below(0x10000));
    }

    unsigned Byte() { return next != end ? *next++ : 0; }

    const std::uint8_t* next;
    const std::uint8_t* end;
};

[[noreturn]] void Differ(const char* rule, const Text& input)
{
    std::fprintf(stderr, "%s differs from its model for:", rule);
    for (const wchar_t character : input)
    {
        std::fprintf(stderr, " %04x", static_cast<unsigned>(character));
    }
    std::fprintf(stderr, "\n");
    std::abort();
}

void CheckMultiString(const Text& text)
{
    const MultiStringBuffer buffer = MakeMultiStringBuffer(text);
    const std::vector<std::uint8_t> bytes(buffer.bytes.get(), buffer.bytes.get() + buffer.size);
    if (bytes != ModelMultiString(text))
    {
        Differ("the multi-string buffer", text);
    }
    const std::list<Text> parsed = ParseMultiString(std::as_bytes(std::span(bytes)));
    if (std::vector<Text>(parsed.begin(), parsed.end()) != ModelParse(bytes))
    {
        Differ("the multi-string parser", text);
    }
}

void CheckSplit(const Text& path)
{
    const FullPathParts parts = SplitFullPath(path);
    std::size_t at = 0;
    while (at < path.size() && path[at] != L'\\')
    {
        ++at;
    }
    const bool found = at < path.size();
    if (parts.valid != found ||
        (found && (Text(parts.hive) != path.substr(0, at) || Text(parts.subkey) != path.substr(at + 1))))
    {
        Differ("the full path's split", path);
    }
}

void CheckLists(const Text& list, const Text& id)
{
    // An id with commas of its own is looked for across entries, as plain text.
    const std::vector<Text> entries = Cut(list, L',');
    const std::vector<Text> wanted = Cut(id, L',');
    const bool member = std::search(entries.begin(), entries.end(), wanted.begin(), wanted.end()) != entries.end();
    if (BindingRules::IsInExceptionList(list, id) != member)
    {
        Differ("the exception list", list + L" / " + id);
    }
    const std::vector<Text> fields = Cut(list, L';');
    const Text account = L"SY";
    bool named = false;
    for (std::size_t field = 1; field < fields.size(); ++field)
    {
        named = named || fields[field].substr(0, 2) == account;
    }
    if (ServiceModeRules::DescriptorNames(list, account) != named)
    {
        Differ("the descriptor test", list);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Generator generate(data, size);
    const Text path = generate.Path();
    if (WriteAllowList::Allows(WriteAllowList::Branches(), path) != ModelAllows(path))
    {
        Differ("the allow-list", path);
    }
    CheckSplit(path);
    const Text list = generate.List();
    CheckMultiString(list);
    CheckMultiString(path);
    CheckLists(list, generate.List());
    Text descriptor = generate.List();
    std::replace(descriptor.begin(), descriptor.end(), L',', L';');
    std::replace(descriptor.begin(), descriptor.end(), L'a', L'S');
    std::replace(descriptor.begin(), descriptor.end(), L'b', L'Y');
    CheckLists(descriptor, generate.List());
    return 0;
}
