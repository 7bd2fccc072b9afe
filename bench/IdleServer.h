// Names that the idle server and the program that measures against it share.
#pragma once

#include <windows.h>

#define BENCH_IDLE_SERVICE L"HalcydBenchIdle"

// Not registered anywhere but in the bench's own prefix.
inline constexpr CLSID CLSID_BenchIdle = {0x3b1a6c52, 0x8f0d, 0x4d5e, {0x9a, 0x41, 0x6e, 0x21, 0x7f, 0x90, 0xc3, 0x14}};
