#include "bench/Measure.h"

#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

double Samples::Percentile(double fraction) const
{
    if (m_values.empty())
        return 0;
    std::vector<std::int64_t> sorted = m_values;
    std::sort(sorted.begin(), sorted.end());
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return static_cast<double>(sorted[std::min(rank == 0 ? 0 : rank - 1, sorted.size() - 1)]);
}

double Samples::Mean() const noexcept
{
    if (m_values.empty())
        return 0;
    return static_cast<double>(std::accumulate(m_values.begin(), m_values.end(), std::int64_t{0})) /
           static_cast<double>(m_values.size());
}

std::int64_t NowNanoseconds() noexcept
{
    static const std::int64_t frequency = []
    {
        LARGE_INTEGER value{};
        QueryPerformanceFrequency(&value);
        return value.QuadPart;
    }();
    LARGE_INTEGER now{};
    QueryPerformanceCounter(&now);
    const std::int64_t seconds = now.QuadPart / frequency;
    const std::int64_t rest = now.QuadPart % frequency;
    return seconds * 1'000'000'000 + rest * 1'000'000'000 / frequency;
}

void PrintResult(const char* name, const std::vector<std::pair<std::string, double>>& fields)
{
    std::printf("{\"bench\":\"%s\"", name);
    for (const auto& [key, value] : fields)
        std::printf(",\"%s\":%.3f", key.c_str(), value);
    std::printf("}\n");
    std::fflush(stdout);
}
