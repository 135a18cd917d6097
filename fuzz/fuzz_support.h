// What the fuzz targets share.
#pragma once

#include <ace/Log_Msg.h>

namespace TarnwickFuzz {

// Turns the library's log off: a target's findings are crashes and sanitizer
// reports, not log lines.
inline void silenceLog() {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::OSTREAM | ACE_Log_Msg::SYSLOG |
                   ACE_Log_Msg::LOGGER);
    log->priority_mask(0, ACE_Log_Msg::PROCESS);
    log->priority_mask(0, ACE_Log_Msg::THREAD);
}

}  // namespace TarnwickFuzz
