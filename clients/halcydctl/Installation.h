#pragma once

#include "clients/halcydctl/Failure.h"

// Asks the service control manager and the registry. Needs no rights and starts nothing.
[[nodiscard]] InstallationFacts ReadInstallation();

[[nodiscard]] const wchar_t* ConditionName(ServiceCondition condition) noexcept;
