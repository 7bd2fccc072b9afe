#pragma once
// Code that a test runs in a process of its own, because it ends the process or plays another client:
//
//     CHILD_PROCESS(testing::Test, WritesAndDies) { ... }      at namespace scope, as a TEST_F of that fixture
//     StartProcess(ChildCommandLine("WritesAndDies"));          in the test that looks at what came of it
//
// It is no test of its own: the program knows it as one only when it was started with its name. The exit code is 0 when
// the body came to its end and all its assertions held.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>

class ChildProcess
{
public:
    using Factory = testing::Test* (*)();

    // Both for the life of the program. Bodies are entered into the list while it starts, on one thread.
    ChildProcess(const char* childName, Factory maker) noexcept : name(childName), make(maker), next(First())
    {
        First() = this;
    }

    // Makes the body of that name the only test of this process. False if there is none.
    [[nodiscard]] static bool Choose(std::string_view wanted)
    {
        for (const ChildProcess* child = First(); child != nullptr; child = child->next)
        {
            if (child->name == wanted)
            {
                testing::RegisterTest("ChildProcess", child->name, nullptr, nullptr, __FILE__, __LINE__, child->make);
                GTEST_FLAG_SET(filter, std::string("ChildProcess.") + child->name);
                return true;
            }
        }
        return false;
    }

private:
    static const ChildProcess*& First() noexcept
    {
        static const ChildProcess* first = nullptr;
        return first;
    }

    const char* name;
    Factory make;
    const ChildProcess* next;
};

// What starts this program as the child of that name.
inline std::wstring ChildCommandLine(std::string_view name)
{
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return L"\"" + path + L"\" --child " + std::wstring(name.begin(), name.end());
}

#define CHILD_PROCESS(fixture, name)                                                                                   \
    class name##Child : public fixture                                                                                 \
    {                                                                                                                  \
        void TestBody() override;                                                                                      \
    };                                                                                                                 \
    const ChildProcess name##Entry(#name, []() -> testing::Test* { return new name##Child; });                         \
    void name##Child::TestBody()
