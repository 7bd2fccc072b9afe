// What all processes of one machine share besides the files: versions, ends of the lists, fault rules, listeners.
#pragma once

#include <atomic>
#include <cstdint>

namespace lab
{

constexpr std::uint32_t sharedMagic = 0x5348424C;
constexpr std::uint32_t sharedLayout = 3;
// Room of the two lists. Their places count on for ever; a place lies in its file at the place modulo the room, so the
// newest lines overwrite the oldest.
constexpr std::uint64_t eventsRoom = 8ULL << 20;
constexpr std::uint64_t journalRoom = 32ULL << 20;
constexpr std::size_t maximumRules = 64;
constexpr std::size_t maximumListeners = 256;

struct SharedRule
{
    std::atomic<std::uint32_t> active; // 0 free, 1 in force; written last
    std::uint32_t nth;
    std::uint32_t times;
    std::uint32_t fails;
    std::uint32_t kills;
    std::uint32_t code;
    std::uint32_t delayMs;
    std::atomic<std::uint32_t> hits;
    char call[100];
};

// Lies in the file `shared.bin`; a fresh file is all zeros, which is a valid start apart from magic and layout.
struct SharedBlock
{
    std::uint32_t magic;
    std::uint32_t layout;
    std::atomic<std::uint64_t> version;      // of state.json
    std::atomic<std::uint64_t> eventsEnd;    // events.jsonl counts up to this place
    std::atomic<std::uint64_t> eventsWanted; // and may be written up to this one at the moment
    std::atomic<std::uint64_t> eventCount;   // sequence number of the last event
    std::atomic<std::uint64_t> journalEnd;   // journal.jsonl is reserved up to this place
    std::atomic<std::uint64_t> journalStart; // where the last clear left it
    std::atomic<std::uint64_t> driverStart;  // the same in the driver's ring
    std::atomic<std::uint32_t> journalOff;
    std::atomic<std::uint32_t> ruleCount;                   // rules in force; 0 makes Fault a single load
    std::atomic<std::uint32_t> listening[maximumListeners]; // 1: a listener waits on the event of that number
    SharedRule rules[maximumRules];
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free && sizeof(std::atomic<std::uint64_t>) == 8);

} // namespace lab
