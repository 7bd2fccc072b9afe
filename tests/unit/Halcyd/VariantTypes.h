#pragma once

#include <windows.h>

#include <vector>

// Every type number that a VARIANT can carry: the basic ones and those that do not exist, alone and with each flag.
inline std::vector<int> AllVariantTypes()
{
    std::vector<int> types;
    // VT_VECTOR, VT_ARRAY, VT_BYREF, array by reference, VT_RESERVED
    for (const int flags : {0x0000, 0x1000, 0x2000, 0x4000, 0x6000, 0x8000})
    {
        for (int type = 0; type <= VT_VERSIONED_STREAM + 2; ++type)
        {
            types.push_back(flags | type);
        }
    }
    types.push_back(VT_ILLEGAL);
    return types;
}
