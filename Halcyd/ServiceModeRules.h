#pragma once
// The decisions of service control, apart from the service control manager. Free of the platform.

#include <cstdint>
#include <string>
#include <string_view>

#include "Halcyd/LatinCase.h"

namespace ServiceModeRules
{
// Which stop list a service belongs to.
enum class ServiceGroup
{
    None,
    IpSec, // the native IPSEC services, which hold the IKE ports
    Wzc,   // direct 802.11 control
};

enum class ModeAction
{
    Stop,            // mode 1
    PauseOrContinue, // modes 2 and 3, which are the control codes as well
    Start,           // modes 4 and 16
    Unsupported,
};

// `keyName` is the key name that the system's own configuration gives, not the name that a client typed. Required to
// be exact for two of the three and without regard to case for "IkeExt".
inline ServiceGroup GroupOf(std::wstring_view keyName)
{
    if (keyName == L"PolicyAgent" || EqualIgnoringLatinCase(keyName, L"IkeExt"))
    {
        return ServiceGroup::IpSec;
    }
    if (keyName == L"WZCSVC")
    {
        return ServiceGroup::Wzc;
    }
    return ServiceGroup::None;
}

inline ModeAction ActionOf(std::int32_t mode)
{
    switch (mode)
    {
    case 1:
        return ModeAction::Stop;
    case 2:
    case 3:
        return ModeAction::PauseOrContinue;
    case 4:
    case 16:
        return ModeAction::Start;
    default:
        return ModeAction::Unsupported;
    }
}

// True if the descriptor's text has an entry for `entity` (an SDDL account such as "SY"). Plain search: the account
// is the last field of an entry, so a semicolon stands before it.
inline bool DescriptorNames(std::wstring_view sddl, std::wstring_view entity)
{
    return sddl.find(std::wstring(1, L';').append(entity)) != std::wstring_view::npos;
}

// Entries that give the service account, administrators, power users and signed-in users their rights on a service.
inline constexpr std::wstring_view DescriptorAddition =
    L"(A;;CCLCSWLORC;;;AU)(A;;CCLCSWRPLOCRRC;;;PU)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;CCLCSWRPWPDTLOCRRC;;;SY)";

// A stop is looked at once, 500 ms after the control: the counter of looks begins at its limit. Required; waiting
// longer would hold the client's call.
inline constexpr std::uint32_t FirstLookMilliseconds = 500;
inline constexpr std::uint32_t NextLookMilliseconds = 1000;
inline constexpr std::uint32_t LookLimit = 5;
} // namespace ServiceModeRules
