#include "lab/driver/LabDriver.h"

#include <windows.h>

#include <memory>
#include <type_traits>

namespace lab
{

namespace
{

struct CloseService
{
    void operator()(SC_HANDLE handle) const noexcept { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseService>;

ServiceHandle OpenManager()
{
    return ServiceHandle{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
}

ServiceHandle OpenDriver(const ServiceHandle& manager)
{
    return ServiceHandle{manager ? OpenServiceW(manager.get(), DriverServiceName, SERVICE_ALL_ACCESS) : nullptr};
}

} // namespace

std::uint32_t InstallDriver(const std::filesystem::path& image)
{
    const ServiceHandle manager = OpenManager();
    if (!manager)
    {
        return GetLastError();
    }
    if (const ServiceHandle existing = OpenDriver(manager))
    {
        const BOOL changed =
            ChangeServiceConfigW(existing.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, image.c_str(),
                                 nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        return changed ? 0 : GetLastError();
    }
    const ServiceHandle created{CreateServiceW(manager.get(), DriverServiceName, DriverServiceName, SERVICE_ALL_ACCESS,
                                               SERVICE_KERNEL_DRIVER, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                               image.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr)};
    return created ? 0 : GetLastError();
}

std::uint32_t StartDriver()
{
    const ServiceHandle driver = OpenDriver(OpenManager());
    if (!driver)
    {
        return GetLastError();
    }
    if (StartServiceW(driver.get(), 0, nullptr))
    {
        return 0;
    }
    const std::uint32_t error = GetLastError();
    return error == ERROR_SERVICE_ALREADY_RUNNING ? 0 : error;
}

std::uint32_t StopDriver()
{
    const ServiceHandle driver = OpenDriver(OpenManager());
    if (!driver)
    {
        return GetLastError();
    }
    SERVICE_STATUS status{};
    if (ControlService(driver.get(), SERVICE_CONTROL_STOP, &status))
    {
        return 0;
    }
    const std::uint32_t error = GetLastError();
    return error == ERROR_SERVICE_NOT_ACTIVE ? 0 : error;
}

std::uint32_t RemoveDriver()
{
    const ServiceHandle driver = OpenDriver(OpenManager());
    if (!driver)
    {
        const std::uint32_t error = GetLastError();
        return error == ERROR_SERVICE_DOES_NOT_EXIST ? 0 : error;
    }
    SERVICE_STATUS status{};
    ControlService(driver.get(), SERVICE_CONTROL_STOP, &status);
    return DeleteService(driver.get()) ? 0 : GetLastError();
}

bool IsDriverRunning()
{
    const ServiceHandle driver = OpenDriver(OpenManager());
    SERVICE_STATUS status{};
    return driver && QueryServiceStatus(driver.get(), &status) && status.dwCurrentState == SERVICE_RUNNING;
}

} // namespace lab
