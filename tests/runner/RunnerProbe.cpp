// Tests that go wrong on purpose; what the runner makes of each is checked by the runner's own checks.

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace
{

struct CrashesWhenDestroyed
{
    bool armed = false;
    ~CrashesWhenDestroyed()
    {
        if (armed)
        {
            RaiseException(0xE0000042, EXCEPTION_NONCONTINUABLE, 0, nullptr);
        }
    }
};
CrashesWhenDestroyed g_atExit;

} // namespace

TEST(Probe, Passes)
{
    EXPECT_EQ(GetCurrentProcessId(), GetCurrentProcessId());
}

TEST(Probe, Fails)
{
    EXPECT_EQ(1, 2);
}

TEST(Probe, WritesThroughANullPointer)
{
    volatile int* nowhere = nullptr;
    *nowhere = 1;
}

TEST(Probe, ThrowsOnAThread)
{
    std::thread([] { throw std::runtime_error("nobody catches this"); }).join();
}

TEST(Probe, Aborts)
{
    std::abort();
}

TEST(Probe, LeavesWithZeroInTheMiddle)
{
    std::exit(0);
}

TEST(Probe, TerminatesItselfWithZero)
{
    TerminateProcess(GetCurrentProcess(), 0);
}

TEST(Probe, Hangs)
{
    Sleep(INFINITE);
}

TEST(Probe, CrashesOnTheWayOut)
{
    g_atExit.armed = true;
}
