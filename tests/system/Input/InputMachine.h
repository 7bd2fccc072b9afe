#pragma once
// Bad input against the running service: whatever a client hands in, the same process answers the next call.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Monitor/MonitorMachine.h"

// What a proxy answers for a null pointer where the interface declares that there is always something: the call does
// not leave the client.
inline constexpr HRESULT kRefusedByProxy = HRESULT_FROM_WIN32(RPC_X_NULL_REF_POINTER);

// One call and its result.
struct InputCall
{
    std::string_view name;
    std::function<HRESULT()> run;
    HRESULT expected = S_OK;
};

// The laptop scenario, the running service, and an object of each class. At the end of each test the service has to be
// the same process as at its start, and has to answer on every class.
class InputTest : public MonitorTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the calls one by one and compares each result.
    static void Check(const std::vector<InputCall>& calls);
    // The service's process is the one that it was, and each class answers a plain call as it should.
    void ExpectSameServiceAnswers();
    // For a test at whose end there is no service.
    void ForgetProcess() noexcept { processes.clear(); }

    IDNSPtr dns;
    INetRegistryPtr registry;
    IServiceControlExPtr services;
    IVNICPtr vnic;
    INetMonSvPtr monitor;
    _bstr_t ethernet{kEthernet};

private:
    std::vector<DWORD> processes;
};

// An object of SimpleSink in the running service. Its class is served under an id that is not registered; this enters
// it into the registry first, as a developer who wants to try the sink would.
ISimpleSinkPtr ActivateSimpleSink();

// A BSTR of `length` characters.
_bstr_t LongText(std::size_t length, wchar_t character = L'x');
// "begin", a NUL, "end": nine characters.
_bstr_t TextWithNul();
