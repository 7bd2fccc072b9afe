// What the objects of one engine share: its copy of the model between Initialize and Uninitialize. Guarded by `mutex`.
#pragma once

#include "lab/netcfg/Model.h"

#include <mutex>

namespace lab::netcfg
{

struct Session
{
    std::mutex mutex;
    bool initialized = false;
    Model stored; // as read, or as applied last
    Model model;  // with the changes that wait for Apply
};

} // namespace lab::netcfg
