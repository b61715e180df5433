#include "AuditTrail.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "Output.h"
#include "PathNames.h"
#include "RootFolder.h"
#include "SystemLog.h"
#include "UniqueFd.h"

namespace velnor::host {
namespace {

using support::couldNot;
using support::Result;
using support::Status;
using support::UniqueFd;

constexpr mode_t kFileMode = 0600;

std::string_view outcomeName(AuditOutcome outcome) {
    switch (outcome) {
        case AuditOutcome::Done:
            return "done";
        case AuditOutcome::Error:
            return "error";
        case AuditOutcome::Exception:
            return "exception";
        case AuditOutcome::Refused:
            return "refused";
        case AuditOutcome::NotRun:
            break;
    }
    return "not run";
}

PlistValue changesValue(const std::vector<SettingChange>& changes) {
    PlistArray list;
    for (const SettingChange& change : changes) {
        PlistDictionary entry{{"key", PlistValue(change.key)}, {"new", PlistValue(change.after)}};
        if (change.before) {
            entry.set("old", PlistValue(*change.before));
        }
        list.emplace_back(std::move(entry));
    }
    return list;
}

// The text under key, or empty when there is none.
std::string textAt(const PlistDictionary& record, std::string_view key) {
    const PlistValue* value = record.find(key);
    return value != nullptr && value->asString() != nullptr ? *value->asString() : std::string();
}

std::string integerAt(const PlistDictionary& record, std::string_view key) {
    const PlistValue* value = record.find(key);
    std::optional<std::int64_t> number = value != nullptr ? value->asInteger() : std::nullopt;
    return number ? std::to_string(*number) : std::string("?");
}

// Who asked, in words: `root (uid 0, control socket, pid 42)`, `root (uid 0, console, from
// 127.0.0.1:50000)`.
std::string whoInWords(const PlistDictionary& record) {
    std::string who = textAt(record, "account") + " (uid " + integerAt(record, "uid") + ", " +
                      textAt(record, "channel");
    if (const std::string address = textAt(record, "remoteAddress"); !address.empty()) {
        who += ", from " + address;
    } else if (const PlistValue* pid = record.find("pid"); pid && pid->asInteger().value_or(0)) {
        who += ", pid " + integerAt(record, "pid");
    }
    return who + ")";
}

// What was asked, in words: the verb, a call's operations, a write's changes as KEY OLD -> NEW.
std::string whatInWords(const PlistDictionary& record) {
    std::string what = textAt(record, "verb");
    const PlistValue* operations = record.find("operations");
    if (what == "call" && operations != nullptr && operations->asArray() != nullptr) {
        for (const PlistValue& operation : *operations->asArray()) {
            what += " " + (operation.asString() ? *operation.asString() : std::string("?"));
        }
    }
    const PlistValue* changes = record.find("changes");
    const char* separator = " ";
    for (const PlistValue& change :
         changes && changes->asArray() ? *changes->asArray() : PlistArray()) {
        const PlistDictionary* entry = change.asDictionary();
        if (entry == nullptr) {
            continue;
        }
        const std::string before = entry->contains("old") ? textAt(*entry, "old") : "(unset)";
        what += separator + textAt(*entry, "key") + " " + before + " -> " + textAt(*entry, "new");
        separator = ", ";
    }
    return what;
}

std::string outcomeInWords(const PlistDictionary& record) {
    const std::string outcome = textAt(record, "outcome");
    const std::string words = textAt(record, "words");
    if (outcome == "error") {
        return "error " + textAt(record, "code") + (words.empty() ? "" : ": " + words);
    }
    if (outcome == "refused") {
        return "refused: lacks " + textAt(record, "action") + (words.empty() ? "" : ": " + words);
    }
    return words.empty() ? outcome : outcome + ": " + words;
}

// The words as one line of a log: a control character that a value holds shows as '?'.
std::string oneLine(std::string text) {
    for (char& character : text) {
        if (static_cast<unsigned char>(character) < 0x20 || character == 0x7f) {
            character = '?';
        }
    }
    return text;
}

// Why a file is not fit to hold the trail; empty when it is. Whoever else may write it could
// forge records, and whoever may read it learns what root did.
std::string untrustedFileBecause(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) {
        return "it is not a regular file";
    }
    if (status.st_uid != 0) {
        return "it belongs to uid " + std::to_string(status.st_uid) + ", not root";
    }
    if (status.st_nlink != 1) {
        return "it has another name (a hard link)";
    }
    return (status.st_mode & 077) != 0 ? "others may read or write it" : "";
}

// The trail's file in the folder open at folder, created root's and 0600 when missing; a link or
// anything not root's alone is refused. Its status in *status.
Result<UniqueFd> openTrailFile(int folder, const std::string& path, struct stat* status) {
    // O_NONBLOCK: a FIFO in the file's place fails at once instead of waiting for a reader.
    UniqueFd file(openat(folder, kAuditFileName,
                         O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                         kFileMode));
    if (!file.valid()) {
        return errno == ELOOP ? couldNot("open", path, "it is a symbolic link", ELOOP)
                              : couldNot("open", path, errno);
    }
    if (fstat(file.get(), status) != 0) {
        return couldNot("inspect", path, errno);
    }
    if (std::string reason = untrustedFileBecause(*status); !reason.empty()) {
        return couldNot("open", path, reason, EPERM);
    }
    return file;
}

// The trail's folder, opened as root's alone and locked with operation (LOCK_EX to append,
// LOCK_SH to read).
Result<UniqueFd> lockedFolder(const std::string& path, int operation) {
    Result<UniqueFd> folder = openStateFolder(path, "audit folder");
    while (folder && flock(folder->get(), operation) != 0) {
        if (errno != EINTR) {
            return couldNot("lock", path, errno);
        }
    }
    return folder;
}

// What the file called name in the folder open at folder holds; nothing when there is none.
Result<std::optional<std::string>> readTrailFile(int folder, const std::string& name,
                                                 const std::string& path) {
    UniqueFd file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        if (errno == ENOENT) {
            return std::optional<std::string>();
        }
        return errno == ELOOP ? couldNot("read", path, "it is a symbolic link", ELOOP)
                              : couldNot("read", path, errno);
    }
    struct stat status;
    if (fstat(file.get(), &status) != 0) {
        return couldNot("inspect", path, errno);
    }
    if (std::string reason = untrustedFileBecause(status); !reason.empty()) {
        return couldNot("read", path, reason, EPERM);
    }
    std::string text;
    char buffer[65536];
    for (ssize_t count; (count = ::read(file.get(), buffer, sizeof buffer)) != 0;) {
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return couldNot("read", path, errno);
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return std::optional<std::string>(std::move(text));
}

// Moves audit.jsonl to audit.jsonl.1 and each older file one number up, dropping the oldest.
// Each step is one rename, so a host killed between two leaves every record in one file or
// another: a number is skipped at most, and the next rotation goes on past the gap.
Status rotate(int folder, const std::string& path) {
    const std::string name = kAuditFileName;
    for (int number = kAuditKeptFiles - 1; number >= 0; --number) {
        const std::string from = number == 0 ? name : name + "." + std::to_string(number);
        const std::string to = name + "." + std::to_string(number + 1);
        if (renameat(folder, from.c_str(), folder, to.c_str()) != 0 && errno != ENOENT) {
            return couldNot("rotate", path + (number == 0 ? "" : "." + std::to_string(number)),
                            errno);
        }
    }
    return fsync(folder) == 0 ? Status() : Status(couldNot("flush the rotation of", path, errno));
}

// Writes the line whole at the file's end, after a line feed when the file's last line was
// left unfinished (by a machine that lost power mid-write): every record starts a line. A write
// that fails part-way is cut off again, so no half record stays.
Status appendWhole(int file, const std::string& path, off_t size, std::string line) {
    char last = '\n';
    if (size > 0 && pread(file, &last, 1, size - 1) == 1 && last != '\n') {
        line.insert(line.begin(), '\n');
    }
    const ssize_t written = ::write(file, line.data(), line.size());
    if (written != static_cast<ssize_t>(line.size())) {
        const int error = written < 0 ? errno : ENOSPC;
        (void)ftruncate(file, size);
        return couldNot("append a record to", path, error);
    }
    if (fdatasync(file) != 0) {
        return couldNot("flush", path, errno);
    }
    return {};
}

// Where journald listens; the journal library drops a message silently when nothing does.
constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

// The system log's line for a record: structured fields in the journal where journald runs,
// else the words at LOG_NOTICE in syslog.
void tellSystemLog(const AuditRecord& record, const std::string& line, const std::string& words) {
    const bool journal = access(kJournalSocket, F_OK) == 0;
    const int sent =
        !journal
            ? -ENOENT
            : sd_journal_send(
                  "MESSAGE=audit: %s", words.c_str(), "PRIORITY=%d", LOG_NOTICE,
                  "VELNOR_AUDIT_UID=%u", static_cast<unsigned>(record.caller.uid),
                  "VELNOR_AUDIT_ACCOUNT=%s", record.caller.account.c_str(),
                  "VELNOR_AUDIT_CHANNEL=%s",
                  std::string(channelName(record.caller.channel)).c_str(), "VELNOR_AUDIT_PID=%d",
                  static_cast<int>(record.caller.pid), "VELNOR_AUDIT_VERB=%s", record.verb.c_str(),
                  "VELNOR_AUDIT_OUTCOME=%s", std::string(outcomeName(record.outcome)).c_str(),
                  "VELNOR_AUDIT_RECORD=%s", line.c_str(), nullptr);
    if (sent < 0) {
        support::logOnly(LOG_NOTICE, "audit: " + words);
    }
}

}  // namespace

std::string auditTime(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    const std::time_t seconds =
        static_cast<std::time_t>(floor<std::chrono::seconds>(time).time_since_epoch().count());
    struct tm calendar {};
    char text[40];
    gmtime_r(&seconds, &calendar);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03dZ",
                  static_cast<int>((milliseconds.count() % 1000 + 1000) % 1000));
    return std::string(text) + fraction;
}

PlistDictionary auditValue(const AuditRecord& record) {
    PlistArray operations(record.operations.begin(), record.operations.end());
    PlistDictionary value{{"time", PlistValue(auditTime(record.time))},
                          {"uid", PlistValue::integer(record.caller.uid)},
                          {"account", PlistValue(record.caller.account)},
                          {"channel", PlistValue(std::string(channelName(record.caller.channel)))},
                          {"pid", PlistValue::integer(record.caller.pid)},
                          {"verb", PlistValue(record.verb)},
                          {"operations", PlistValue(std::move(operations))},
                          {"outcome", PlistValue(std::string(outcomeName(record.outcome)))},
                          {"tookMs", PlistValue::integer(record.took.count())}};
    const std::pair<const char*, const std::string*> optional[] = {
        {"remoteAddress", &record.caller.remoteAddress},
        {"code", &record.code},
        {"words", &record.words},
        {"action", &record.action}};
    for (const auto& [key, text] : optional) {
        if (!text->empty()) {
            value.set(key, PlistValue(*text));
        }
    }
    if (!record.argument.isAbsent()) {
        value.set("argument", record.argument);
    }
    if (!record.changes.empty()) {
        value.set("changes", changesValue(record.changes));
    }
    return value;
}

std::string auditLine(const AuditRecord& record) {
    return toJsonLine(PlistValue(auditValue(record))) + "\n";
}

std::string auditWords(const PlistDictionary& record) {
    return oneLine(textAt(record, "time") + " " + whoInWords(record) + " " + whatInWords(record) +
                   ": " + outcomeInWords(record) + " in " + integerAt(record, "tookMs") + " ms");
}

AuditTrail::AuditTrail(std::string folder) : folder_(std::move(folder)) {}

std::string AuditTrail::path() const {
    return support::joinedPath(folder_, kAuditFileName);
}

Status AuditTrail::checkWritable() const {
    Result<UniqueFd> folder = openStateFolder(folder_, "audit folder");
    if (!folder) {
        return folder.failure();
    }
    struct stat status;
    Result<UniqueFd> file = openTrailFile(folder->get(), path(), &status);
    return file ? Status() : Status(file.failure());
}

Status AuditTrail::append(const AuditRecord& record) const {
    // One appender at a time, in this process or another: the size checked for a rotation is
    // still the size when the line goes in, and a failed write is cut off without cutting
    // another's record.
    Result<UniqueFd> folder = lockedFolder(folder_, LOCK_EX);
    if (!folder) {
        return folder.failure();
    }
    const std::string line = auditLine(record);
    struct stat status;
    Result<UniqueFd> file = openTrailFile(folder->get(), path(), &status);
    if (file && status.st_size > 0 &&
        status.st_size + static_cast<off_t>(line.size()) > kAuditFileLimit) {
        if (Status rotated = rotate(folder->get(), path()); !rotated) {
            return rotated;
        }
        file = openTrailFile(folder->get(), path(), &status);
    }
    if (!file) {
        return file.failure();
    }
    if (Status appended = appendWhole(file->get(), path(), status.st_size, line); !appended) {
        return appended;
    }
    // A file just created is found after a crash only once its folder is flushed too.
    if (status.st_size == 0 && fsync(folder->get()) != 0) {
        return couldNot("flush", folder_, errno);
    }
    return {};
}

Result<std::vector<std::string>> AuditTrail::readFiles() const {
    // No rotation between two files: a record is read once, neither twice nor never.
    Result<UniqueFd> folder = lockedFolder(folder_, LOCK_SH);
    if (!folder) {
        return folder.failure();
    }
    std::vector<std::string> files;
    for (int number = kAuditKeptFiles; number >= 0; --number) {
        const std::string name =
            std::string(kAuditFileName) + (number == 0 ? "" : "." + std::to_string(number));
        Result<std::optional<std::string>> text =
            readTrailFile(folder->get(), name, support::joinedPath(folder_, name));
        if (!text) {
            return text.failure();
        }
        if (*text) {
            files.push_back(std::move(**text));
        }
    }
    return files;
}

Status recordInTrail(const AuditTrail& trail, const AuditRecord& record) {
    const std::string line = auditLine(record);
    const std::string words = auditWords(auditValue(record));
    Status appended = trail.append(record);
    tellSystemLog(record, line, words);
    if (!appended) {
        ::syslog(LOG_ERR, "could not record in the audit trail: %s: %s", words.c_str(),
                 appended.message().c_str());
    }
    return appended;
}

void recordRefusal(const Caller& caller, std::string_view verb, std::string_view action,
                   std::string_view reason) {
    AuditRecord record;
    record.time = std::chrono::system_clock::now();
    record.caller = caller;
    record.verb = std::string(verb);
    record.outcome = AuditOutcome::Refused;
    record.action = std::string(action);
    record.words = std::string(reason);
    (void)recordInTrail(AuditTrail(), record);
}

}  // namespace velnor::host
