#include "NetUtilities/Singleton.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace
{
// The logger goes to the front of the list and so is destroyed last. The rule is about the text: any type whose name
// starts like this goes there.
bool IsLoggerName(std::string_view typeName) noexcept
{
    return typeName.starts_with("class Logger");
}
} // namespace

// The lock is asked for again and again rather than waited for: a tear-down holds it until the threads of all
// singletons have ended, and the caller may be one of them (the logger's, with a failure to tell to the file logger).
LifetimeTracker::Registration LifetimeTracker::Register(std::string typeName,
                                                        std::function<void()> cleanup) NO_THREAD_SAFETY_ANALYSIS
{
    while (!trackerLock.TryLock())
    {
        if (tearingDown.load())
        {
            return Known;
        }
        SwitchToThread();
    }
    const MutexLock lock(trackerLock, MutexLock<RecursiveMutex>::Locked);
    const bool known =
        std::any_of(entries.begin(), entries.end(), [&](const Record& record) { return record.typeName == typeName; });
    if (known)
    {
        return Known;
    }
    Record record{std::move(typeName), std::move(cleanup)};
    if (IsLoggerName(record.typeName))
    {
        entries.push_front(std::move(record));
    }
    else
    {
        entries.push_back(std::move(record));
    }
    return Recorded;
}

void LifetimeTracker::DestroyAll()
{
    const MutexLock lock(trackerLock);
    if (entries.empty())
    {
        return;
    }
    // The walk covers the records of now: one that a clean-up adds, at either end, is left for the next call. Records
    // stay in the list until the walk is over, so that a singleton that is gone is not made again meanwhile.
    std::vector<std::list<Record>::iterator> walk;
    walk.reserve(entries.size());
    for (auto record = entries.begin(); record != entries.end(); ++record)
    {
        walk.push_back(record);
    }
    tearingDown.store(true);
    std::for_each(walk.rbegin(), walk.rend(), [](auto record) { record->cleanup(); });
    tearingDown.store(false);
    for (const auto& record : walk)
    {
        entries.erase(record);
    }
}

void DestroyAllSingletons()
{
    LifetimeTracker::Get().DestroyAll();
}
