#include "NetUtilities/Singleton.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/Event.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
std::vector<std::string> destroyed;
} // namespace

// Outside the unnamed namespace: the names are compared below.
class LoggerLookalike : public Singleton<LoggerLookalike>
{
public:
    ~LoggerLookalike() { destroyed.emplace_back("LoggerLookalike"); }
};
class SingletonA : public Singleton<SingletonA>
{
public:
    ~SingletonA() { destroyed.emplace_back("A"); }
    int value = 0;
};
class SingletonB : public Singleton<SingletonB>
{
public:
    ~SingletonB() { destroyed.emplace_back("B"); }
};
class SingletonC : public Singleton<SingletonC>
{
public:
    ~SingletonC()
    {
        destroyed.emplace_back("C");
        if (meetsNewOne)
        {
            metWhileGoing = SingletonA::Get([] { return new SingletonA; }) != nullptr;
        }
    }
    static inline bool meetsNewOne = false;
    static inline bool metWhileGoing = false;
};
// Ends a thread of its own on the way out, which asks for another singleton first.
class SingletonWithThread : public Singleton<SingletonWithThread>
{
public:
    ~SingletonWithThread()
    {
        std::thread last(
            []
            {
                gotOne = SingletonB::Get([] { return new SingletonB; }) != nullptr;
                answered.Set();
            });
        inTime = answered.Wait(10'000);
        if (inTime)
        {
            last.join();
        }
        else
        {
            last.detach();
        }
    }
    static inline Event answered{true, false};
    static inline std::atomic<bool> gotOne = false;
    static inline bool inTime = false;
};

namespace
{
class SingletonTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        destroyed.clear();
        SingletonC::meetsNewOne = false;
    }
    void TearDown() override { RestartTrace(); }
};

TEST_F(SingletonTest, TypeNameReadsClassAndNameWithEachCompiler)
{
    EXPECT_EQ("class SingletonA", SingletonDetail::TypeName<SingletonA>());
}

TEST_F(SingletonTest, GetGivesTheSameObjectUntilTheTearDown)
{
    const auto first = SingletonA::Get([] { return new SingletonA; });
    first->value = 7;
    EXPECT_EQ(7, SingletonA::Get([] { return new SingletonA; })->value);
}

TEST_F(SingletonTest, DestructionRunsInReverseOrderOfFirstUse)
{
    (void)SingletonA::Get([] { return new SingletonA; });
    (void)SingletonB::Get([] { return new SingletonB; });
    (void)SingletonA::Get([] { return new SingletonA; });
    DestroyAllSingletons();
    EXPECT_EQ((std::vector<std::string>{"B", "A"}), destroyed);
}

TEST_F(SingletonTest, LoggerMadeAfterThreeOthersIsDestroyedAfterThem)
{
    (void)SingletonA::Get([] { return new SingletonA; });
    (void)SingletonB::Get([] { return new SingletonB; });
    (void)SingletonC::Get([] { return new SingletonC; });
    (void)LoggerLookalike::Get([] { return new LoggerLookalike; });
    DestroyAllSingletons();
    EXPECT_EQ((std::vector<std::string>{"C", "B", "A", "LoggerLookalike"}), destroyed);
}

TEST_F(SingletonTest, SecondTearDownDoesNothing)
{
    (void)SingletonA::Get([] { return new SingletonA; });
    DestroyAllSingletons();
    DestroyAllSingletons();
    EXPECT_EQ(1U, destroyed.size());
}

TEST_F(SingletonTest, GetAfterTearDownMakesANewObjectWithANewRecord)
{
    SingletonA::Get([] { return new SingletonA; })->value = 7;
    DestroyAllSingletons();
    EXPECT_EQ(0, SingletonA::Get([] { return new SingletonA; })->value);
    DestroyAllSingletons();
    EXPECT_EQ((std::vector<std::string>{"A", "A"}), destroyed);
}

TEST_F(SingletonTest, SharedReferenceKeepsTheObjectBeyondTheTearDown)
{
    auto reference = SingletonA::Get([] { return new SingletonA; });
    DestroyAllSingletons();
    EXPECT_TRUE(destroyed.empty());
    reference.reset();
    EXPECT_EQ((std::vector<std::string>{"A"}), destroyed);
}

TEST_F(SingletonTest, RegistrationDuringTheTearDownIsServedByTheNextOne)
{
    SingletonC::meetsNewOne = true;
    (void)SingletonC::Get([] { return new SingletonC; });
    DestroyAllSingletons();
    EXPECT_TRUE(SingletonC::metWhileGoing);
    EXPECT_EQ((std::vector<std::string>{"C"}), destroyed);
    DestroyAllSingletons();
    EXPECT_EQ((std::vector<std::string>{"C", "A"}), destroyed);
}

TEST_F(SingletonTest, SingletonThatIsGoneAlreadyIsNotMadeAgainDuringTheTearDown)
{
    SingletonC::meetsNewOne = true;
    (void)SingletonC::Get([] { return new SingletonC; });
    (void)SingletonA::Get([] { return new SingletonA; }); // goes before C
    DestroyAllSingletons();
    EXPECT_FALSE(SingletonC::metWhileGoing);
    EXPECT_EQ((std::vector<std::string>{"A", "C"}), destroyed);
}

TEST_F(SingletonTest, ThreadThatATearDownJoinsGetsNullInsteadOfWaitingForItsEnd)
{
    (void)SingletonWithThread::Get([] { return new SingletonWithThread; });
    DestroyAllSingletons();
    EXPECT_TRUE(SingletonWithThread::inTime) << "each waited for the other";
    EXPECT_FALSE(SingletonWithThread::gotOne);
    EXPECT_NE(nullptr, SingletonB::Get([] { return new SingletonB; })) << "behind the tear-down all is as before";
}

TEST_F(SingletonTest, LoserOfTheFirstUseGetsNullWhileTheWinnerBuilds)
{
    std::shared_ptr<SingletonA> seenByLoser = std::make_shared<SingletonA>();
    const auto winner = SingletonA::Get(
        [&]
        {
            // The record is made and the object is not: what another thread finds in this instant.
            seenByLoser = SingletonA::Get([] { return new SingletonA; });
            return new SingletonA;
        });
    EXPECT_EQ(nullptr, seenByLoser);
    EXPECT_NE(nullptr, winner);
}

TEST_F(SingletonTest, TrackerTellsNewTypesFromKnownOnes)
{
    LifetimeTracker tracker;
    EXPECT_EQ(1, tracker.Register("class X", [] {}));
    EXPECT_EQ(2, tracker.Register("class X", [] {}));
    EXPECT_EQ(1, tracker.Register("class x", [] {}));
}
} // namespace
