#pragma once
// Turns a comma separated text into the bytes of a REG_MULTI_SZ value. Free of the platform.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

// The bytes of a multi-string value, or nothing if memory ran out.
struct MultiStringBuffer
{
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t size = 0; // in bytes: twice the text's length plus the four zero bytes that end the list
};

// Copies `text` as little-endian 16-bit characters into a zeroed buffer and then zeroes each BYTE that has the value
// of a comma. Required to go over bytes, not characters: a character whose high or low byte is 0x2C (U+2C00 to U+2CFF,
// U+xx2C) loses that byte. Values that clients wrote in this form must read back the same; do not mend it.
inline MultiStringBuffer MakeMultiStringBuffer(std::wstring_view text)
{
    constexpr std::uint8_t comma = 0x2C;
    MultiStringBuffer buffer;
    const std::size_t size = 2 * text.size() + 4;
    buffer.bytes.reset(new (std::nothrow) std::uint8_t[size]());
    if (buffer.bytes == nullptr)
    {
        return buffer;
    }
    buffer.size = size;
    for (std::size_t index = 0; index < text.size(); ++index)
    {
        const auto unit = static_cast<std::uint32_t>(text[index]);
        buffer.bytes[2 * index] = static_cast<std::uint8_t>(unit & 0xFFU);
        buffer.bytes[2 * index + 1] = static_cast<std::uint8_t>((unit >> 8U) & 0xFFU);
    }
    for (std::size_t index = 0; index < size; ++index)
    {
        if (buffer.bytes[index] == comma)
        {
            buffer.bytes[index] = 0;
        }
    }
    return buffer;
}
