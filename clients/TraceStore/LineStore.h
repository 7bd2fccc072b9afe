#pragma once
// Keeps trace lines: the newest ones in memory for readers, all of them in rotating files.
//
// Append returns as soon as the line is in this process's memory; a writer thread puts it into the current file within
// FlushInterval. So the end of any client loses nothing, and the sudden end of this process loses at most what came in
// the last FlushInterval. Lines are written without forcing the disk, so only the machine's own crash can take more.
//
// When files cannot be written (disk full, no access) lines wait in memory up to MaximumPendingBytes, then Append drops
// the newest; the count of lost lines is kept, and a line that tells of them is written once writing works again.
//
// All functions are safe from any thread.

#include <windows.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "NetUtilities/Mutex.h"
#include "clients/TraceStore/LineFormat.h"
#include "clients/TraceStore/RotatingFiles.h"

namespace TraceFile
{
// Source number that stands for every source in queries.
inline constexpr std::uint16_t EverySource = 0xFFFF;

struct NumberedLine
{
    std::int64_t number = 0;
    Line line;
};

struct StoreStatistics
{
    std::int64_t firstNumber = 0;
    std::int64_t lastNumber = 0;
    std::uint64_t linesWritten = 0;
    std::uint64_t linesLost = 0;
};

class LineStore
{
public:
    static constexpr DWORD FlushInterval = 100;                                  // milliseconds
    static constexpr std::size_t KeptLines = 32768;                              // in memory, this run's
    static constexpr std::size_t KeptCharacters = std::size_t{16} * 1024 * 1024; // in memory, this run's
    static constexpr std::size_t KeptHistory = 20000; // lines of earlier runs, read from the files on demand
    static constexpr std::size_t WriteAtOnceBytes = std::size_t{64} * 1024; // this much does not wait for the interval
    static constexpr std::size_t MaximumPendingBytes = std::size_t{64} * 1024 * 1024;

    LineStore(std::filesystem::path folder, FileLimits limits);
    // Writes what is left.
    ~LineStore();
    LineStore(const LineStore&) = delete;
    LineStore& operator=(const LineStore&) = delete;

    void Append(std::uint16_t source, std::uint16_t level, std::wstring_view text);

    // Up to `maximum` lines behind number `after` that match, oldest first. If there is none, waits for one up to
    // `waitMilliseconds`. `next` is where to go on: lines up to it were looked at.
    [[nodiscard]] std::vector<NumberedLine> Read(std::int64_t after, std::uint16_t source, std::uint16_t level,
                                                 std::size_t maximum, DWORD waitMilliseconds, std::int64_t& next);

    // The number behind which the last `lines` matching lines stand.
    [[nodiscard]] std::int64_t FindTail(std::uint16_t source, std::uint16_t level, std::size_t lines);

    // Returns once every line taken so far is in a file, or was given up.
    void Flush();

    [[nodiscard]] StoreStatistics Statistics();
    [[nodiscard]] const std::filesystem::path& Folder() const noexcept { return files.Folder(); }

    // Ends waits in Read early, for the end of the process.
    void ReleaseReaders();

private:
    void WriterThread();
    void LoadHistory() REQUIRES(mutex);
    [[nodiscard]] std::int64_t FirstNumber() const REQUIRES(mutex);
    [[nodiscard]] const Line& At(std::int64_t number) const REQUIRES(mutex);
    void PutPendingBack(std::string&& bytes, std::vector<std::size_t>&& ends, std::size_t written) REQUIRES(mutex);

    RotatingFiles files; // the writer thread's, but for Folder()

    PlainMutex mutex;
    ConditionVariable writerWake;
    ConditionVariable readerWake;
    ConditionVariable flushWake;
    std::deque<Line> lines GUARDED_BY(mutex); // this run's newest; the last one is number lastNumber
    std::size_t lineCharacters GUARDED_BY(mutex) = 0;
    std::int64_t lastNumber GUARDED_BY(mutex) = 0; // this run's lines count from 1
    std::vector<Line> history GUARDED_BY(mutex);   // earlier runs' newest; the last one is number 0
    bool historyLoaded GUARDED_BY(mutex) = false;
    std::vector<NumberedFile> historyFiles GUARDED_BY(mutex); // as they stood when this run began
    std::string pending GUARDED_BY(mutex);                    // records on their way to the file
    std::vector<std::size_t> pendingEnds GUARDED_BY(mutex);   // offset behind each of them
    std::uint64_t linesTaken GUARDED_BY(mutex) = 0;           // accepted into pending, ever
    std::uint64_t linesSettled GUARDED_BY(mutex) = 0;         // of those, in a file or given up
    std::uint64_t linesLost GUARDED_BY(mutex) = 0;
    std::uint64_t lossTold GUARDED_BY(mutex) = 0; // part of linesLost that a line in the file told of
    std::uint32_t waitingReaders GUARDED_BY(mutex) = 0;
    std::uint32_t waitingFlushes GUARDED_BY(mutex) = 0;
    bool writerIdle GUARDED_BY(mutex) = false;
    bool readersReleased GUARDED_BY(mutex) = false;
    bool stop GUARDED_BY(mutex) = false;
    std::thread writer;
};
} // namespace TraceFile
