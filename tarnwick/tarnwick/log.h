// Diagnostics of the library's own code.
//
// Every message of the library goes to ACE_Log_Msg as one format string that
// carries its own date, level word and thread marker: "%D ERROR (%t): ",
// "%D WARN  (%t): ", "%D INFO  (%t): " or "%D DEBUG (%t): ". Where that output
// goes is the application's choice (ACE_Log_Msg flags, ostream or callback).
// In formats, %W prints a wide string, %C a narrow one and %m the text of the
// error number that stood when the message was made.
#pragma once

namespace Tarnwick {

// Logs one message. The priority is taken from the level word of the prefix
// (LM_ERROR, LM_WARNING, LM_INFO, LM_DEBUG), so that word and priority always
// agree; a format without a known prefix logs at LM_ERROR. errno is kept.
void logMessage(const char* file, int line, const char* format, ...);

// Logs the failure message `text` (prefix included, no line end) in one of its
// two forms: followed by ": %m\n" when errno is not 0, by "\n" otherwise.
// errno is kept.
void logLastError(const char* file, int line, const char* text, ...);

}  // namespace Tarnwick

#define TW_LOG(...) ::Tarnwick::logMessage(__FILE__, __LINE__, __VA_ARGS__)
#define TW_LOG_ERRNO(...) ::Tarnwick::logLastError(__FILE__, __LINE__, __VA_ARGS__)
