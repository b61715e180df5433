// The process's connection to the system log. syslog(3) keeps one set of options per process:
// the in-process host echoes its log on standard error so that the plug-in's messages reach the
// terminal, and velnord does so in the foreground. Lines meant for the log alone (the audit
// trail's) must not reach the terminal with them.
#pragma once

#include <string>

namespace velnor::support {

// openlog(3), remembering ident (which must outlive the process's logging: a literal) and
// options for logOnly.
void openSystemLog(const char* ident, int options, int facility);

// text at priority in the system log, never echoed on standard error.
void logOnly(int priority, const std::string& text);

}  // namespace velnor::support
