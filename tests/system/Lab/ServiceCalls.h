// The platform calls of the service as the lab's journal tells them, and one of them failing: what fault sweeps are
// made of. An undisturbed run of an operation gives the list of its calls; each of them is then failed in turn.
//
// The service must have been started after `labctl hooks on`: only then are the calls of its import table among them.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lab/state/Machine.h"

struct ServiceCall
{
    std::string name;      // as fault rules name it
    int nth = 0;           // which call of this name since the recording began, from 1
    int alike = 0;         // which call of this name with these arguments, from 1
    std::string arguments; // JSON, "" for none
    DWORD thread = 0;

    [[nodiscard]] bool Mentions(std::string_view text) const { return arguments.find(text) != std::string::npos; }
};

std::ostream& operator<<(std::ostream& out, const ServiceCall& call);

// Records from construction on. One at a time in a test.
class CallRecorder
{
public:
    CallRecorder();
    ~CallRecorder(); // the journal is off while nobody records: clean rounds run faster
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    // The calls of Halcyd.exe so far, in their order.
    [[nodiscard]] const std::vector<ServiceCall>& Calls();

private:
    lab::JournalPosition m_position;
    std::vector<ServiceCall> m_calls;
};

// The call of that number and name fails once with `code`, counted from construction. The destructor drops all rules.
class ArmedFault
{
public:
    ArmedFault(const std::string& name, int nth, std::uint32_t code);
    ~ArmedFault();
    ArmedFault(const ArmedFault&) = delete;
    ArmedFault& operator=(const ArmedFault&) = delete;

    // Whether the call has been made and has failed. A rule that nothing met would prove nothing.
    [[nodiscard]] bool Hit() const;
};
