// journal.
#include "lab/labctl/Verbs.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <iostream>

namespace lab::ctl
{

namespace
{

struct Options
{
    bool follow = false;
    bool clear = false;
    bool json = false;
    bool count = false;
    bool on = false;
    bool off = false;
    std::string call;
    std::string process;
    double seconds = 0;
};

// "IWbemServices::ExecQuery", or with a final '*' all that begin so.
bool Wanted(const Json& line, const Options& options)
{
    const std::string call = TextField(line, "call");
    const bool prefix = !options.call.empty() && options.call.back() == '*';
    const bool callFits =
        options.call.empty() ||
        (prefix ? call.rfind(options.call.substr(0, options.call.size() - 1), 0) == 0 : call == options.call);
    return callFits && (options.process.empty() || EqualNoCase(TextField(line, "process"), options.process));
}

void Show(const Json& line, bool json)
{
    if (json)
    {
        std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
        return;
    }
    const std::string time = TextField(line, "time");
    std::cout << (time.size() > 26 ? time.substr(11, 12) : time) << "  " << TextField(line, "process") << '/'
              << Member(line, "tid").dump() << "  " << TextField(line, "call");
    for (const char* part : {"args", "out"})
    {
        if (line.contains(part))
        {
            std::cout << (part[0] == 'a' ? "  " : "  -> ")
                      << line[part].dump(-1, ' ', false, Json::error_handler_t::replace);
        }
    }
    std::cout << "  = " << TextField(line, "result") << '\n';
}

void RunJournal(const Options& options)
{
    Machine& machine = Machine::Attach();
    if (options.on || options.off)
    {
        machine.SwitchJournal(options.on);
    }
    if (options.clear)
    {
        machine.ClearJournal();
    }
    if (options.on || options.off || (options.clear && !options.follow))
    {
        return;
    }
    JournalPosition position;
    std::size_t count = 0;
    const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(options.seconds * 1000);
    for (;;)
    {
        for (const Json& line : machine.ReadJournal(position))
        {
            if (Wanted(line, options))
            {
                ++count;
                if (!options.count)
                {
                    Show(line, options.json);
                }
            }
        }
        std::cout << std::flush;
        if (!options.follow || (options.seconds > 0 && GetTickCount64() >= end))
        {
            break;
        }
        Sleep(100); // writers of the journal wake nobody, to stay cheap
    }
    if (options.count)
    {
        std::cout << count << '\n';
    }
}

} // namespace

void AddJournalVerbs(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("journal", "Show the calls into the lab since the last clear");
    auto options = std::make_shared<Options>();
    verb->add_flag("--follow", options->follow, "Go on showing new ones");
    verb->add_option("--seconds", options->seconds, "With --follow: stop after so long");
    verb->add_flag("--clear", options->clear, "Start anew");
    verb->add_flag("--json", options->json, "One JSON object a line");
    verb->add_flag("--count", options->count, "Only how many");
    verb->add_option("--call", options->call, "Only this call; a final * matches any rest");
    verb->add_option("--process", options->process, "Only this program, such as Halcyd.exe");
    verb->add_flag("--on", options->on, "Switch the journal on");
    verb->add_flag("--off", options->off, "Switch the journal off, for measurements");
    verb->callback([options] { RunJournal(*options); });
}

} // namespace lab::ctl
