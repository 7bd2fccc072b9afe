// A null call (the FilterMask property) while another client's DisableIpBindings call is open, against the same call
// with nothing open. Short blocks of both follow each other, in turn one or the other first, so that other work of the
// machine hits both; each side's p99 is taken per group of blocks, and the median of those counts.

#include <windows.h>

#include <comdef.h>

#include <cstdio>
#include <thread>

#include "Halcyd_h.h"
#include "NetUtilities/ComApartment.h"
#include "bench/Measure.h"
#include "tests/support/ComPointers.h"
#include "tests/support/EventRecorder.h"

namespace
{

constexpr int kCallsPerBlock = 250;
constexpr int kBlocksPerGroup = 4;
// Kept connected by the call. No adapter need have it: all others are then disabled.
constexpr wchar_t kKeptAdapter[] = L"{00000000-0000-0000-0000-000000000001}";

void NullCalls(INetMonSv* monitor, Samples& samples)
{
    for (int i = 0; i < kCallsPerBlock; ++i)
    {
        LONG mask = 0;
        const std::int64_t start = NowNanoseconds();
        monitor->get_FilterMask(&mask);
        samples.Add(NowNanoseconds() - start);
    }
}

// A DisableIpBindings call that stays open for the life of this object.
class OpenCall
{
public:
    OpenCall(INetMonSv* monitor, EventRecorder& events) : m_monitor(monitor)
    {
        events.Clear();
        m_thread = std::thread(
            []
            {
                // An apartment membership and a proxy of its own: the call blocks its thread.
                const ComApartment apartment(COINIT_MULTITHREADED);
                if (const INetMonSvPtr caller = ActivateMonitor())
                    caller->DisableIpBindings(_bstr_t(kKeptAdapter), 0);
            });
        const auto disabled = events.WaitForEvent(enumEventIpBindingsDisabled);
        m_open = disabled && disabled->number == 0;
    }
    ~OpenCall()
    {
        m_monitor->RestoreIpBindings();
        m_thread.join();
    }
    OpenCall(const OpenCall&) = delete;
    OpenCall& operator=(const OpenCall&) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_open; }

private:
    INetMonSv* m_monitor;
    std::thread m_thread;
    bool m_open = false;
};

struct Block
{
    Samples& without;
    Samples& with;
};

bool OneBlock(INetMonSv* monitor, EventRecorder& events, bool openFirst, Block block)
{
    if (!openFirst)
        NullCalls(monitor, block.without);
    {
        const OpenCall open(monitor, events);
        if (!open.IsOpen())
            return false;
        Samples warmUp;
        NullCalls(monitor, warmUp); // the disabling itself has just ended
        NullCalls(monitor, block.with);
    }
    if (openFirst)
    {
        Samples warmUp;
        NullCalls(monitor, warmUp);
        NullCalls(monitor, block.without);
    }
    return true;
}

} // namespace

int RunOpenCallBench(int rounds)
{
    const INetMonSvPtr monitor = ActivateMonitor();
    if (monitor == nullptr)
    {
        std::fprintf(stderr, "cannot activate the monitor\n");
        return 1;
    }
    const EventConnection events(monitor);
    Samples without99;
    Samples with99;
    Samples without50;
    Samples with50;
    for (int group = 0; group < rounds; ++group)
    {
        Samples without;
        Samples with;
        for (int i = 0; i < kBlocksPerGroup; ++i)
        {
            if (!OneBlock(monitor, events.Recorder(), i % 2 != 0, {without, with}))
            {
                std::fprintf(stderr, "the bindings could not be disabled: the call did not stay open\n");
                return 1;
            }
        }
        without99.Add(static_cast<std::int64_t>(without.Percentile(0.99)));
        with99.Add(static_cast<std::int64_t>(with.Percentile(0.99)));
        without50.Add(static_cast<std::int64_t>(without.Percentile(0.5)));
        with50.Add(static_cast<std::int64_t>(with.Percentile(0.5)));
    }
    PrintResult("open_call", {{"without_p99_ns", without99.Percentile(0.5)},
                              {"with_p99_ns", with99.Percentile(0.5)},
                              {"without_p50_ns", without50.Percentile(0.5)},
                              {"with_p50_ns", with50.Percentile(0.5)},
                              {"calls", rounds * kBlocksPerGroup * kCallsPerBlock}});
    return 0;
}
