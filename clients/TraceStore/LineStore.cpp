#include "clients/TraceStore/LineStore.h"

#include <algorithm>
#include <utility>

namespace TraceFile
{
namespace
{
constexpr DWORD RetryAfterFailure = 1000; // milliseconds between attempts to write while writing fails

// Lines of the trace service's own go to the general source as failures.
constexpr std::uint16_t OwnSource = 1;
constexpr std::uint16_t OwnLevel = 2;

bool Matches(const Line& line, std::uint16_t source, std::uint16_t level)
{
    return (source == EverySource || line.source == source) && line.level <= level;
}

// The first `bytes` bytes of a file: what it held when this run began.
std::string ReadFileStart(const NumberedFile& file)
{
    UniqueHandle opened(CreateFileW(file.path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    std::string bytes;
    if (!opened)
    {
        return bytes; // rotated away meanwhile
    }
    constexpr std::uint64_t LargestPart = 256ull * 1024 * 1024;
    bytes.resize(static_cast<std::size_t>(std::min(file.bytes, LargestPart)));
    std::size_t used = 0;
    DWORD read = 0;
    while (used < bytes.size() &&
           ReadFile(opened.get(), bytes.data() + used,
                    static_cast<DWORD>(std::min<std::size_t>(bytes.size() - used, 0x400000)), &read, nullptr) &&
           read != 0)
    {
        used += read;
    }
    bytes.resize(used);
    return bytes;
}
} // namespace

LineStore::LineStore(std::filesystem::path folder, FileLimits limits)
    : files(std::move(folder), limits), historyFiles(ListFiles(files.Folder()))
{
    writer = std::thread([this] { WriterThread(); });
}

LineStore::~LineStore()
{
    ReleaseReaders();
    {
        MutexLock lock(mutex);
        stop = true;
        writerWake.WakeAll();
    }
    writer.join();
}

void LineStore::Append(std::uint16_t source, std::uint16_t level, std::wstring_view text)
{
    // Everything that costs is done before the lock.
    Line line{source, level, Limit(text)};
    std::string record;
    record.reserve(line.text.size() + line.text.size() / 4 + 16);
    AppendRecord(record, source, level, line.text);

    MutexLock lock(mutex);
    lineCharacters += line.text.size();
    lines.push_back(std::move(line));
    ++lastNumber;
    while (lines.size() > KeptLines || (lineCharacters > KeptCharacters && lines.size() > 1))
    {
        lineCharacters -= lines.front().text.size();
        lines.pop_front();
    }
    if (pending.size() + record.size() > MaximumPendingBytes)
    {
        ++linesLost;
    }
    else
    {
        pending += record;
        pendingEnds.push_back(pending.size());
        ++linesTaken;
        if (writerIdle || pending.size() >= WriteAtOnceBytes)
        {
            writerWake.WakeOne();
        }
    }
    if (waitingReaders != 0)
    {
        readerWake.WakeAll();
    }
}

std::vector<NumberedLine> LineStore::Read(std::int64_t after, std::uint16_t source, std::uint16_t level,
                                          std::size_t maximum, DWORD waitMilliseconds, std::int64_t& next)
{
    std::vector<NumberedLine> found;
    const ULONGLONG deadline = GetTickCount64() + waitMilliseconds;
    MutexLock lock(mutex);
    if (after < 0)
    {
        LoadHistory();
    }
    for (;;)
    {
        std::int64_t number = std::max(after + 1, FirstNumber());
        for (; number <= lastNumber && found.size() < maximum; ++number)
        {
            const Line& line = At(number);
            if (Matches(line, source, level))
            {
                found.push_back({number, line});
            }
        }
        // A number from the future (an earlier run's) starts over at the end.
        after = std::min(number - 1, lastNumber);
        const ULONGLONG now = GetTickCount64();
        if (!found.empty() || maximum == 0 || now >= deadline || readersReleased)
        {
            break;
        }
        ++waitingReaders;
        readerWake.WaitFor(mutex, static_cast<DWORD>(deadline - now));
        --waitingReaders;
    }
    next = after;
    return found;
}

std::int64_t LineStore::FindTail(std::uint16_t source, std::uint16_t level, std::size_t wanted)
{
    MutexLock lock(mutex);
    LoadHistory();
    const std::int64_t first = FirstNumber();
    std::int64_t number = lastNumber;
    for (; number >= first && wanted != 0; --number)
    {
        if (Matches(At(number), source, level))
        {
            --wanted;
        }
    }
    return number;
}

void LineStore::Flush()
{
    MutexLock lock(mutex);
    const std::uint64_t target = linesTaken;
    ++waitingFlushes;
    writerWake.WakeOne();
    while (linesSettled < target && !stop)
    {
        flushWake.Wait(mutex);
    }
    --waitingFlushes;
}

StoreStatistics LineStore::Statistics()
{
    MutexLock lock(mutex);
    LoadHistory();
    return {FirstNumber(), lastNumber, linesSettled, linesLost};
}

void LineStore::ReleaseReaders()
{
    MutexLock lock(mutex);
    readersReleased = true;
    readerWake.WakeAll();
}

std::int64_t LineStore::FirstNumber() const
{
    const std::int64_t kept = static_cast<std::int64_t>(lines.size());
    if (kept == lastNumber)
    {
        return 1 - static_cast<std::int64_t>(history.size());
    }
    return lastNumber - kept + 1; // older lines of this run left memory, so what lies before them is out of reach too
}

const Line& LineStore::At(std::int64_t number) const
{
    if (number <= 0)
    {
        return history[static_cast<std::size_t>(static_cast<std::int64_t>(history.size()) - 1 + number)];
    }
    return lines[static_cast<std::size_t>(static_cast<std::int64_t>(lines.size()) - 1 - (lastNumber - number))];
}

void LineStore::LoadHistory()
{
    if (historyLoaded)
    {
        return;
    }
    historyLoaded = true;
    for (auto file = historyFiles.rbegin(); file != historyFiles.rend() && history.size() < KeptHistory; ++file)
    {
        std::vector<Line> older = ParseRecords(ReadFileStart(*file));
        older.insert(older.end(), std::make_move_iterator(history.begin()), std::make_move_iterator(history.end()));
        history = std::move(older);
    }
    if (history.size() > KeptHistory)
    {
        history.erase(history.begin(), history.end() - static_cast<std::ptrdiff_t>(KeptHistory));
    }
    historyFiles.clear();
}

void LineStore::WriterThread()
{
    std::string bytes;
    std::vector<std::size_t> ends;
    mutex.Lock();
    for (;;)
    {
        while (pending.empty() && !stop)
        {
            writerIdle = true;
            writerWake.Wait(mutex);
        }
        writerIdle = false;
        if (pending.empty())
        {
            break; // stopped, and everything is written
        }
        // Lines come in bursts: a short wait makes one write out of many.
        const ULONGLONG deadline = GetTickCount64() + FlushInterval / 2;
        while (!stop && waitingFlushes == 0 && pending.size() < WriteAtOnceBytes)
        {
            const ULONGLONG now = GetTickCount64();
            if (now >= deadline || !writerWake.WaitFor(mutex, static_cast<DWORD>(deadline - now)))
            {
                break;
            }
        }
        if (linesLost != lossTold)
        {
            AppendRecord(pending, OwnSource, OwnLevel,
                         std::to_wstring(linesLost - lossTold) +
                             L" trace lines were lost while no file could be written");
            pendingEnds.push_back(pending.size());
            ++linesTaken;
            lossTold = linesLost;
        }
        bytes.swap(pending);
        ends.swap(pendingEnds);
        mutex.Unlock();
        const std::size_t written = files.Write(bytes, ends);
        mutex.Lock();

        linesSettled += written;
        if (written < ends.size())
        {
            PutPendingBack(std::move(bytes), std::move(ends), written);
            if (stop)
            {
                break; // nobody is left to wait for room on the disk
            }
            if (waitingFlushes != 0)
            {
                linesLost += pendingEnds.size();
                linesSettled += pendingEnds.size();
                pending.clear();
                pendingEnds.clear();
            }
            else
            {
                writerWake.WaitFor(mutex, RetryAfterFailure);
            }
        }
        bytes.clear();
        ends.clear();
        if (waitingFlushes != 0)
        {
            flushWake.WakeAll();
        }
    }
    flushWake.WakeAll();
    mutex.Unlock();
}

void LineStore::PutPendingBack(std::string&& bytes, std::vector<std::size_t>&& ends, std::size_t written)
{
    // What came in meanwhile goes behind what is left over.
    const std::size_t gone = written == 0 ? 0 : ends[written - 1];
    std::string left = bytes.substr(gone);
    std::vector<std::size_t> leftEnds;
    leftEnds.reserve(ends.size() - written + pendingEnds.size());
    for (std::size_t index = written; index < ends.size(); ++index)
    {
        leftEnds.push_back(ends[index] - gone);
    }
    const std::size_t base = left.size();
    left += pending;
    for (const std::size_t end : pendingEnds)
    {
        leftEnds.push_back(end + base);
    }
    pending = std::move(left);
    pendingEnds = std::move(leftEnds);
}
} // namespace TraceFile
