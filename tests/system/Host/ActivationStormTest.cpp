// Clients that come and go all the time, as tools and scripts do: each finds the service.

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/ComPointers.h"
#include "tests/support/RunningService.h"

namespace
{
class ActivationStorm : public RunningServiceTest
{
};

TEST_F(ActivationStorm, EveryOneOfFourHundredClientsFindsItsObject)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 100;
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread)
    {
        threads.emplace_back(
            [&found]
            {
                const ComApartment own;
                for (int round = 0; round < rounds; ++round)
                {
                    const auto registry = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry);
                    found += registry != nullptr ? 1 : 0;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(found, threadCount * rounds);
}
} // namespace
