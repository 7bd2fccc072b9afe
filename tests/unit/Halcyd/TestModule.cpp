#include "tests/unit/Halcyd/TestModule.h"

void EnsureTestModule()
{
    // On the heap and never freed: objects of the tests may outlive main.
    static CComModule* const module = _pModule != nullptr ? _pModule : new CComModule;
    static_cast<void>(module);
}
