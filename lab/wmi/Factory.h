// The class factory that hands out locators.
#pragma once

#include "lab/wmi/ComBase.h"

namespace lab::wmi
{

// {4590F811-1D3A-11D0-891F-00AA004B2E24}
extern const CLSID locatorClass;

// Makes a factory with one reference for the caller.
[[nodiscard]] IClassFactory* MakeFactory();

} // namespace lab::wmi
