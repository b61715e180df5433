// The audit trail: who changed the service, how, what, and what came of it. One record for every
// request that changes something (start, stop, restart, try-restart, a settings write, the
// setup, the housekeeping asked for by hand) and for every refusal of one, whichever host ran
// it. Reads are not recorded.
//
// The trail is a file of JSON lines, /var/lib/velnor/audit.jsonl, in a folder of root's alone;
// each record is one line, appended with one O_APPEND write and flushed to disk before whoever
// asked is answered, so a host killed at any moment leaves whole lines and every answered change
// recorded. Each record also goes to the system log in words.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Caller.h"
#include "PlistValue.h"
#include "Result.h"
#include "StateFolder.h"

namespace velnor::host {

inline constexpr const char* kAuditFolder = kStateFolder;
inline constexpr const char* kAuditFileName = "audit.jsonl";
// A record that would take the file past this size first rotates it: audit.jsonl becomes
// audit.jsonl.1, .1 becomes .2, and so on; the oldest kept, .5, is dropped. So the trail holds
// at most 60 MiB.
inline constexpr off_t kAuditFileLimit = off_t{10} << 20;
inline constexpr int kAuditKeptFiles = 5;

// A setting that a write changes: its value before (nothing when it was not set) and the value
// asked for.
struct SettingChange {
    std::string key;
    std::optional<std::string> before;
    std::string after;
};

enum class AuditOutcome {
    Done,       // the operation answered without an error
    Error,      // it answered an error response: code, words
    Exception,  // it threw: words name what
    Refused,    // it was not allowed: action, words say why
    NotRun,     // the host could not run it: words say why
};

struct AuditRecord {
    std::chrono::system_clock::time_point time;
    Caller caller;
    // The friendly verb typed, "call" for a call by name, or the console's action.
    std::string verb;
    // The plug-in's operations it ran, in order; empty for a refusal.
    std::vector<std::string> operations;
    // The variant, request or count it was called with; absent when none.
    PlistValue argument;
    std::vector<SettingChange> changes;
    AuditOutcome outcome = AuditOutcome::Done;
    // The error response's code, for Error.
    std::string code;
    // The error's words, what was thrown, why it was refused or not run.
    std::string words;
    // The polkit action that a refused caller lacks.
    std::string action;
    std::chrono::milliseconds took{0};
};

// The record as the trail's JSON object: time (UTC, ISO 8601 with milliseconds), uid, account,
// channel, pid (0 for the console), remoteAddress (the console's), verb, operations, argument
// (when there is one), changes ([{key, old?, new}], when there are), outcome ("done", "error",
// "exception", "refused", "not run"), code, words and action (when they apply), tookMs.
PlistDictionary auditValue(const AuditRecord& record);

// The record's line in the file: its JSON object on one line, ending in a line feed. A string
// can never break the line: control characters are escaped, and bytes that are not UTF-8 become
// U+FFFD.
std::string auditLine(const AuditRecord& record);

// A record, as auditValue makes it or as it is read back, in words on one line:
// `2026-11-25T00:10:00.123Z root (uid 0, control socket, pid 42) settings work_mem 4MB -> 8MB:
// done in 12 ms`. Control characters in the values show as '?': the words are one line of a log.
std::string auditWords(const PlistDictionary& record);

// The time as the trail writes it: UTC, ISO 8601, milliseconds: 2026-11-25T00:10:00.123Z.
std::string auditTime(std::chrono::system_clock::time_point time);

// The trail's file in its folder (kAuditFolder unless a test gives another).
class AuditTrail {
  public:
    explicit AuditTrail(std::string folder = kAuditFolder);

    // The file's path, for messages: FOLDER/audit.jsonl.
    std::string path() const;

    // Succeeds when a record could be appended now: the folder and the file open as root's
    // alone (created root's, 0700 and 0600, when missing), and neither is a link. Writes nothing.
    support::Status checkWritable() const;

    // Appends the record's line with one write and flushes it to disk, after rotating the file
    // when the line would take it past kAuditFileLimit. Fails, having written nothing, when the
    // folder or file is not root's alone or is a link, and when the write or flush fails.
    support::Status append(const AuditRecord& record) const;

    // What the trail's files hold, oldest first: audit.jsonl.5 down to .1, then audit.jsonl. A
    // missing file is skipped (the folder is created when missing, as for a record). Fails when
    // the folder or a file is not root's alone or is a link: what another account could write is
    // no record.
    support::Result<std::vector<std::string>> readFiles() const;

  private:
    std::string folder_;
};

// Appends the record to the trail and tells the system log (the journal with structured fields
// where journald runs, else syslog at LOG_NOTICE). A record that could not be appended is logged
// at LOG_ERR as well; the failure is returned for the caller to tell.
support::Status recordInTrail(const AuditTrail& trail, const AuditRecord& record);

// Records that polkit refused the caller the verb for want of action, reason saying why; a
// failure to record is logged at LOG_ERR.
void recordRefusal(const Caller& caller, std::string_view verb, std::string_view action,
                   std::string_view reason);

}  // namespace velnor::host
