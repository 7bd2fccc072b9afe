// What a trace line costs its caller, accepted and rejected, against the asynchronous logger of a well-known
// library with the same text; and how many lines per second reach the trace service against bare COM calls.

#include <windows.h>

#include <comdef.h>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#endif
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#include <memory>
#include <string>
#include <thread>

#include "NetUtilities/Logger.h"
#include "NetUtilities/Trace.h"
#include "NetUtilities/TraceLogManager.h"
#include "bench/Measure.h"

namespace
{

constexpr wchar_t kText[] = L"updated the list element for the adapter '{0F3A2B1C-1111-2222-3333-444455556666}'";
constexpr char kNarrowText[] = "updated the list element for the adapter '{0F3A2B1C-1111-2222-3333-444455556666}'";
constexpr int kBatch = 256;
constexpr std::uint16_t kAcceptedLevel = 4;
constexpr std::uint16_t kRejectedLevel = 6;

template <class Call>
double TimePerCall(Call call)
{
    const std::int64_t start = NowNanoseconds();
    for (int i = 0; i < kBatch; ++i)
        call();
    return static_cast<double>(NowNanoseconds() - start) / kBatch;
}

} // namespace

int RunTraceCostBench(int rounds)
{
    // A queue longer than a batch: neither side ever waits for its consumer while it is being timed.
    spdlog::init_thread_pool(8192, 1);
    auto yardstick =
        std::make_shared<spdlog::async_logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>(),
                                               spdlog::thread_pool(), spdlog::async_overflow_policy::block);
    LogMessage(Log::Source::General, kAcceptedLevel, kText); // starts the logger thread
    Samples accepted;
    Samples rejected;
    Samples spd;
    for (int i = -3; i < rounds; ++i)
    {
        const double spdTime = TimePerCall([&] { yardstick->info(kNarrowText); });
        const double acceptedTime = TimePerCall([] { LogMessage(Log::Source::General, kAcceptedLevel, kText); });
        const double rejectedTime = TimePerCall([] { LogMessage(Log::Source::General, kRejectedLevel, kText); });
        // Let both consumers drain: the batches are timed apart from each other's wake-ups.
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        if (i < 0)
            continue;
        accepted.Add(static_cast<std::int64_t>(acceptedTime));
        rejected.Add(static_cast<std::int64_t>(rejectedTime));
        spd.Add(static_cast<std::int64_t>(spdTime));
    }
    PrintResult("trace_cost", {{"accepted_p50_ns", accepted.Percentile(0.5)},
                               {"spdlog_p50_ns", spd.Percentile(0.5)},
                               {"rejected_p50_ns", rejected.Percentile(0.5)}});
    return 0;
}

int RunTraceDeliveryBench(int lines)
{
    ITraceLogManager* manager = nullptr;
    const HRESULT result = CoCreateInstance(CLSID_TraceLogManager, nullptr, CLSCTX_LOCAL_SERVER, IID_ITraceLogManager,
                                            reinterpret_cast<void**>(&manager));
    if (FAILED(result))
    {
        std::fprintf(stderr, "cannot reach the trace service: 0x%08lx\n", static_cast<unsigned long>(result));
        return 1;
    }
    const _bstr_t text{kText};
    const auto source = static_cast<std::uint16_t>(Log::Source::General);
    for (int i = 0; i < lines / 10; ++i)
        manager->WriteLine(source, kAcceptedLevel, text);
    const std::int64_t bareStart = NowNanoseconds();
    for (int i = 0; i < lines; ++i)
        manager->WriteLine(source, kAcceptedLevel, text);
    const double bareSeconds = static_cast<double>(NowNanoseconds() - bareStart) / 1e9;
    manager->Release();

    LogMessage(Log::Source::General, kAcceptedLevel, kText);
    const std::int64_t loggerStart = NowNanoseconds();
    for (int i = 0; i < lines; ++i)
        LogMessage(Log::Source::General, kAcceptedLevel, kText);
    DestroyAllSingletons(); // stops the logger, which delivers all that is queued first
    const double loggerSeconds = static_cast<double>(NowNanoseconds() - loggerStart) / 1e9;
    PrintResult("trace_delivery",
                {{"bare_calls_per_second", lines / bareSeconds}, {"lines_per_second", lines / loggerSeconds}});
    return 0;
}
