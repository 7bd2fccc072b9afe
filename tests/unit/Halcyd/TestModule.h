#pragma once
// Objects of the service's COM classes inside the test program.

#include <comdef.h>

#include "ComSupport/ComSupport.h"

// The module that ComSupport's objects lock; made with the first use, alive to the end of the program.
void EnsureTestModule();

// Owns one reference to a free-standing object of class T and gives its members.
template <class T>
class TestObject
{
public:
    explicit TestObject(CComObject<T>* made) : object(made) { object->AddRef(); }
    TestObject(TestObject&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
    TestObject(const TestObject&) = delete;
    TestObject& operator=(const TestObject&) = delete;
    ~TestObject()
    {
        if (object != nullptr)
        {
            object->Release();
        }
    }
    T* operator->() const { return object; }
    [[nodiscard]] T* Get() const { return object; }

private:
    CComObject<T>* object;
};

template <class T>
TestObject<T> MakeTestObject()
{
    EnsureTestModule();
    return TestObject<T>(new CComObject<T>());
}
