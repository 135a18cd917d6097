#include <tarnwick/commands.h>

namespace Tarnwick {

const wchar_t* translate_command(int command) {
    static const wchar_t* const names[22] = {L"No command",
                                             L"Identification",
                                             L"Session List",
                                             L"Directory Listing",
                                             L"Progress",
                                             L"Download File",
                                             L"Upload File",
                                             L"Start Process",
                                             L"Stop Process",
                                             L"Status Process",
                                             L"Protocol Error",
                                             L"Ihave (internal)",
                                             L"Sendme (internal)",
                                             L"Agent Info",
                                             L"Hartbeat (internal)",
                                             L"Check Connections (not implemented)",
                                             L"List Sessions",
                                             L"Acknowledge (internal)",
                                             L"Kick Agent",
                                             L"Get Job Logfile",
                                             L"Stop Workflow job",
                                             L"Reload Configuration"};
    return names[command];
}

}  // namespace Tarnwick
