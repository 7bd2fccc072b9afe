#pragma once
// Process singletons whose end the program controls, instead of the order of static destructors.
//
// A class derives from Singleton<T> and is reached through Singleton<T>::Get. Each first use is recorded in
// LifetimeTracker; LifetimeTracker::DestroyAll takes all recorded objects down in reverse order of first use, the
// Logger last, so that the others can still trace while they go. Shared references keep an object alive beyond
// that until the last of them is dropped.

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "NetUtilities/Mutex.h"

namespace SingletonDetail
{
// "class Logger" for Logger, whichever compiler is at work: the type's name as the tracker compares it.
template <class T>
[[nodiscard]] std::string TypeName()
{
#if defined(__clang__) || defined(__GNUC__)
    // "... TypeName() [T = Logger]" or "... TypeName() [with T = Logger; std::string = ...]"
    constexpr std::string_view text = __PRETTY_FUNCTION__;
    constexpr std::string_view mark = "T = ";
    constexpr auto start = text.find(mark) + mark.size();
    return "class " + std::string(text.substr(start, text.find_first_of(";]", start) - start));
#else
#error "a spelling of the type name for this compiler is missing"
#endif
}

// Keeps an object out of the static destructors.
template <class T>
union Indestructible
{
    T value;
    constexpr Indestructible() noexcept : value() {}
    constexpr ~Indestructible() {}
};
} // namespace SingletonDetail

// An object that C++ itself makes on first use, whichever thread comes first, and takes down with the process.
template <class T>
class SimpleSingleton
{
public:
    static T& Get()
    {
        static T object;
        return object;
    }
};

// Records the singletons of the process and takes them down on request. Any thread; DestroyAll is meant for a
// stage at which other threads no longer use singletons, and after Logger::Stop.
class LifetimeTracker : public SimpleSingleton<LifetimeTracker>
{
public:
    enum Registration
    {
        Recorded = 1, // the type was new
        Known = 2,    // the type had a record already
    };

    // Records type T with its clean-up function, unless it has a record. Nothing is recorded for a thread that comes
    // while another one tears down: that one may be joining it, so it is told Known at once instead of waiting.
    template <class T>
    Registration Register(std::function<void()> cleanup)
    {
        return Register(SingletonDetail::TypeName<T>(), std::move(cleanup));
    }
    Registration Register(std::string typeName, std::function<void()> cleanup);

    // Calls the clean-up functions from the last record to the first, then drops those records. A record made
    // meanwhile, by a destructor that meets a singleton not yet made, stays for the next call.
    void DestroyAll();

private:
    struct Record
    {
        std::string typeName;
        std::function<void()> cleanup;
    };

    std::list<Record> entries GUARDED_BY(trackerLock);
    RecursiveMutex trackerLock;           // recursive: a singleton being destroyed can still get another one
    std::atomic<bool> tearingDown{false}; // written under trackerLock
};

// LifetimeTracker::DestroyAll on the process's tracker: the tear-down at the end of the service's life.
void DestroyAllSingletons();

template <class T>
class Singleton
{
public:
    // A shared reference to the one object, made by `factory` (returning a T* from new) on first use. May be null:
    // the first use is not locked, and a thread that loses that race while the winner is still building gets
    // nothing; nor does one whose first use falls into a tear-down by another thread. Every caller tests the result.
    template <class Factory>
    [[nodiscard]] static std::shared_ptr<T> Get(Factory&& factory)
    {
        if (object.load(std::memory_order_acquire) == nullptr)
        {
            const auto registration = LifetimeTracker::Get().template Register<T>(&Singleton::Release);
            if (registration == LifetimeTracker::Recorded)
            {
                std::shared_ptr<T> made(factory());
                T* const raw = made.get();
                control.value.store(std::move(made));
                object.store(raw, std::memory_order_release);
            }
            else if (object.load(std::memory_order_acquire) == nullptr)
            {
                return nullptr;
            }
        }
        return control.value.load();
    }

protected:
    Singleton() = default;
    ~Singleton() = default;

private:
    // The tracker's clean-up: forget the object, then drop the singleton's own reference.
    static void Release()
    {
        object.store(nullptr, std::memory_order_release);
        const std::shared_ptr<T> last = control.value.exchange(nullptr);
    }

    static inline std::atomic<T*> object{nullptr};
    static inline SingletonDetail::Indestructible<std::atomic<std::shared_ptr<T>>> control;
};
