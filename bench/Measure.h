// Timing for the bench programs: raw samples in nanoseconds, percentiles, and one JSON line per result on the
// standard output for bench.py.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class Samples
{
public:
    void Add(std::int64_t nanoseconds) { m_values.push_back(nanoseconds); }
    [[nodiscard]] std::size_t Count() const noexcept { return m_values.size(); }
    // Percentile by nearest rank; fraction in 0..1. No samples give 0.
    [[nodiscard]] double Percentile(double fraction) const;
    [[nodiscard]] double Mean() const noexcept;

private:
    std::vector<std::int64_t> m_values;
};

// The performance counter in nanoseconds.
[[nodiscard]] std::int64_t NowNanoseconds() noexcept;

// Prints {"bench":"name","key":number,...} and flushes.
void PrintResult(const char* name, const std::vector<std::pair<std::string, double>>& fields);

// Sub-commands; each returns a process exit code.
int RunCallBench(int rounds);
int RunStartBench(int rounds);
int RunOpenCallBench(int rounds);
int RunEventBench(int rounds);
int RunEventRateBench(int events);
int RunEventListBench(int rounds);
// Calls the idle service and the product once each, as a client that comes and goes.
int RunTouch(int);
// Takes the lab away from the product's later starts.
int RunLabOff(int);
int RunTraceCostBench(int rounds);
int RunTraceDeliveryBench(int lines);
