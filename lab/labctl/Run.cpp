#include "lab/labctl/Verbs.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace lab::ctl
{

void Print(const Json& json, bool oneLine)
{
    std::cout << json.dump(oneLine ? -1 : 2, ' ', false, Json::error_handler_t::replace) << '\n' << std::flush;
}

int Run(const std::vector<std::string>& arguments)
{
    CLI::App app{"Changes the simulated machine, and shows what happened in it.\n"
                 "The machine is the one of this Windows prefix (C:\\ProgramData\\HalcydLab), or the folder that the\n"
                 "environment variable HALCYD_LAB names.",
                 "labctl"};
    app.require_subcommand(1);
    app.allow_windows_style_options(false); // a path may begin with a slash
    app.failure_message(CLI::FailureMessage::help);
    AddStateVerbs(app);
    AddAdapterVerbs(app);
    AddEventVerbs(app);
    AddJournalVerbs(app);
    AddFaultVerbs(app);
    AddControlVerbs(app);
    AddNetCfgVerbs(app);
    try
    {
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend()); // as the parser takes them
        app.parse(reversed);
        return 0;
    }
    catch (const CLI::ParseError& error)
    {
        const int code = app.exit(error);
        return code == 0 ? 0 : 2;
    }
    catch (const std::exception& error)
    {
        std::cerr << "labctl: " << error.what() << '\n';
        return 1;
    }
}

} // namespace lab::ctl
