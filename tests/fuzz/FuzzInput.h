#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

// A property that must hold for every input; the fuzzer reports the input that breaks it.
#define PROPERTY(condition)                                                                                            \
    do                                                                                                                 \
    {                                                                                                                  \
        if (!(condition))                                                                                              \
        {                                                                                                              \
            std::fprintf(stderr, "property broken: %s (%s:%d)\n", #condition, __FILE__, __LINE__);                     \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)

namespace FuzzInput
{
inline std::string_view Narrow(const std::uint8_t* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

// Two bytes a character, as the platform's texts have it.
inline std::wstring Wide(const std::uint8_t* data, std::size_t size)
{
    std::wstring text;
    for (std::size_t at = 0; at + 1 < size; at += 2)
    {
        text += static_cast<wchar_t>(data[at] | (data[at + 1] << 8));
    }
    return text;
}

inline std::span<const std::byte> Bytes(const std::uint8_t* data, std::size_t size)
{
    return std::as_bytes(std::span(data, size));
}
} // namespace FuzzInput
