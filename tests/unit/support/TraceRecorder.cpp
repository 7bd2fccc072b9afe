#include "tests/unit/support/TraceRecorder.h"

#include <algorithm>
#include <chrono>

#include "NetUtilities/Logger.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Singleton.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr std::wstring_view MarkerText = L"unit test marker ";

// Both the service object and its class object live as long as the process; references are not counted.
class RecorderObject : public ITraceLogManager
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (iid == IID_IUnknown || iid == IID_ITraceLogManager)
        {
            *object = static_cast<ITraceLogManager*>(this);
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetGlobalLevel(unsigned short* level) override
    {
        return TraceRecorder::Get().AnswerGlobalLevel(level);
    }
    HRESULT STDMETHODCALLTYPE GetSourceLevel(unsigned short source, unsigned short* level) override
    {
        return TraceRecorder::Get().AnswerSourceLevel(source, level);
    }
    HRESULT STDMETHODCALLTYPE WriteLine(unsigned short source, unsigned short level, BSTR text) override
    {
        return TraceRecorder::Get().Take(source, level, text);
    }
};

class RecorderClass : public IClassFactory
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (iid == IID_IUnknown || iid == IID_IClassFactory)
        {
            *object = static_cast<IClassFactory*>(this);
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID iid, void** object) override
    {
        static RecorderObject recorder;
        return recorder.QueryInterface(iid, object);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

// gtest owns it. Here, so that no test program can forget it.
[[maybe_unused]] testing::Environment* const environment = testing::AddGlobalTestEnvironment(new TraceEnvironment);
} // namespace

std::wstring RecordedLine::Message() const
{
    const auto end = text.find(L": ", 24); // behind the ids
    return end == std::wstring::npos ? text : text.substr(end + 2);
}

TraceRecorder& TraceRecorder::Get()
{
    static TraceRecorder& recorder = *new TraceRecorder; // never destroyed: threads may trace while the process ends
    return recorder;
}

void TraceRecorder::Reset()
{
    const std::lock_guard guard(lock);
    lines.clear();
    globalLevel = 6;
    std::fill(std::begin(sourceLevels), std::end(sourceLevels), std::uint16_t{0});
    globalResult = sourceResult = writeResult = S_OK;
    globalCalls = 0;
    sourceCalls.clear();
}

std::vector<RecordedLine> TraceRecorder::Lines()
{
    std::wstring marker;
    {
        const std::lock_guard guard(lock);
        marker = std::wstring(MarkerText) + std::to_wstring(++markers);
    }
    LogMessage(Log::Source::General, 1, marker);
    std::unique_lock guard(lock);
    const auto isMarker = [&](const RecordedLine& line) { return line.Message() == marker; };
    const bool came = arrived.wait_for(guard, std::chrono::seconds(20),
                                       [&] { return std::any_of(lines.begin(), lines.end(), isMarker); });
    EXPECT_TRUE(came) << "the trace did not arrive";
    std::erase_if(lines, [](const RecordedLine& line) { return line.Message().starts_with(MarkerText); });
    return lines;
}

std::vector<std::wstring> TraceRecorder::Messages()
{
    std::vector<std::wstring> messages;
    for (const RecordedLine& line : Lines())
    {
        messages.push_back(line.Message());
    }
    return messages;
}

bool TraceRecorder::Has(std::uint16_t source, std::uint16_t level, std::wstring_view message)
{
    const auto all = Lines();
    return std::any_of(all.begin(), all.end(), [&](const RecordedLine& line)
                       { return line.source == source && line.level == level && line.Message() == message; });
}

bool TraceRecorder::HasMessage(std::wstring_view message)
{
    const auto all = Messages();
    return std::find(all.begin(), all.end(), message) != all.end();
}

bool TraceRecorder::HasMessageStarting(std::wstring_view start)
{
    const auto all = Messages();
    return std::any_of(all.begin(), all.end(), [&](const std::wstring& message) { return message.starts_with(start); });
}

std::vector<RecordedLine> TraceRecorder::LinesNow()
{
    const std::lock_guard guard(lock);
    return lines;
}

void TraceRecorder::SetGlobalLevel(std::uint16_t level)
{
    const std::lock_guard guard(lock);
    globalLevel = level;
}

void TraceRecorder::SetSourceLevel(std::uint16_t source, std::uint16_t level)
{
    const std::lock_guard guard(lock);
    sourceLevels[source] = level;
}

void TraceRecorder::SetResults(HRESULT globalLevelResult, HRESULT sourceLevelResult, HRESULT writeLineResult)
{
    const std::lock_guard guard(lock);
    globalResult = globalLevelResult;
    sourceResult = sourceLevelResult;
    writeResult = writeLineResult;
}

unsigned TraceRecorder::GlobalLevelCalls()
{
    const std::lock_guard guard(lock);
    return globalCalls;
}

std::vector<std::uint16_t> TraceRecorder::SourceLevelCalls()
{
    const std::lock_guard guard(lock);
    return sourceCalls;
}

void TraceRecorder::RegisterClass()
{
    static RecorderClass factory;
    ASSERT_EQ(S_OK,
              CoRegisterClassObject(CLSID_TraceLogManager, &factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie));
}

void TraceRecorder::RevokeClass()
{
    ASSERT_EQ(S_OK, CoRevokeClassObject(cookie));
}

HRESULT TraceRecorder::AnswerGlobalLevel(unsigned short* level)
{
    const std::lock_guard guard(lock);
    ++globalCalls;
    *level = globalLevel;
    return globalResult;
}

HRESULT TraceRecorder::AnswerSourceLevel(unsigned short source, unsigned short* level)
{
    const std::lock_guard guard(lock);
    sourceCalls.push_back(source);
    *level = source < std::size(sourceLevels) ? sourceLevels[source] : std::uint16_t{0};
    return sourceResult;
}

HRESULT TraceRecorder::Take(unsigned short source, unsigned short level, BSTR text)
{
    const std::lock_guard guard(lock);
    lines.push_back({source, level, std::wstring(text, SysStringLen(text))});
    arrived.notify_all();
    return writeResult;
}

void TraceEnvironment::SetUp()
{
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    TraceRecorder::Get().RegisterClass();
    RegistryKey product;
    ASSERT_EQ(0U, product.Create(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_WRITE));
    ASSERT_EQ(0U, product.WriteDword(L"TraceLevel", 6));
}

void TraceEnvironment::TearDown()
{
    RestartTrace();
    TraceRecorder::Get().RevokeClass();
    CoUninitialize();
}

void RestartTrace()
{
    if (const auto logger = Logger::Instance())
    {
        logger->Stop();
    }
    DestroyAllSingletons();
}
