#include "Explanations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include "SafePath.h"

namespace velnor::host {
namespace {

// Fields of the protocol's own bookkeeping, which tell a person nothing.
constexpr std::string_view kProtocolFields[] = {"setStateVersion", "readStatus", "writeStatus"};

// The third word of a client's process title: where it connects from, "[local]" for the
// socket or "ADDRESS(PORT)"; the server's own processes (background writer, ...) have none.
bool isClientHost(std::string_view host) {
    return host == "[local]" || (host.ends_with(')') && host.find('(') != std::string_view::npos);
}

std::vector<std::string> words(std::string_view text) {
    std::vector<std::string> split;
    std::istringstream stream{std::string(text)};
    for (std::string word; stream >> word;) {
        split.push_back(word);
    }
    return split;
}

// The next word of text, taken off its front; nothing when no word is left.
std::optional<std::string_view> takeWord(std::string_view& text) {
    std::size_t start = text.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(start);
    std::size_t end = std::min(text.find(' '), text.size());
    std::string_view word = text.substr(0, end);
    text.remove_prefix(end);
    return word;
}

// The start of a /proc file, at most limit bytes: empty when the process has ended.
std::string readSmallFile(const std::string& path, std::size_t limit) {
    std::ifstream in(path, std::ios::binary);
    std::string text(limit, '\0');
    in.read(text.data(), static_cast<std::streamsize>(limit));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

// The process's first argument, where the server writes a child's title.
std::string processTitle(pid_t pid) {
    std::string title = readSmallFile("/proc/" + std::to_string(pid) + "/cmdline", 4096);
    return title.substr(0, title.find('\0'));
}

// The owner of the process, as its /proc folder shows it; nothing once it has ended.
std::optional<uid_t> ownerOf(pid_t pid) {
    struct stat status;
    if (stat(("/proc/" + std::to_string(pid)).c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status.st_uid;
}

// The parent of the process, from its stat line after the command's closing parenthesis.
pid_t parentOf(pid_t pid) {
    std::string stat = readSmallFile("/proc/" + std::to_string(pid) + "/stat", 1024);
    std::size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::vector<std::string> fields = words(std::string_view(stat).substr(close + 1));
    return fields.size() > 1 ? static_cast<pid_t>(std::atoi(fields[1].c_str())) : 0;
}

// The server program's path begins as the job's does ("/usr/bin/postgres-15").
bool runsServerProgram(pid_t pid) {
    char target[4096];
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    return length > 0 && std::string_view(target, static_cast<std::size_t>(length))
                             .starts_with(kServerProgramPrefix);
}

std::vector<pid_t> processIds() {
    std::vector<pid_t> pids;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    if (!proc) {
        return pids;
    }
    while (dirent* entry = readdir(proc.get())) {
        if (pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name)); pid > 0) {
            pids.push_back(pid);
        }
    }
    return pids;
}

support::Result<support::UniqueFd> openLog(const std::string& path) {
    support::Result<support::UniqueFd> where = support::openSafely(path);
    if (!where) {
        return where;
    }
    support::Result<support::UniqueFd> log =
        support::reopen(where->get(), O_RDONLY | O_NONBLOCK | O_NOCTTY, path);
    if (!log) {
        return log;
    }
    struct stat status;
    if (fstat(log->get(), &status) != 0) {
        return support::couldNot("read the log", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return support::couldNot("read the log", path, "it is not a regular file");
    }
    return log;
}

}  // namespace

std::string failureSentence(std::string_view verb, std::string_view code) {
    std::string sentence = std::string(verb) + " failed: ";
    if (std::optional<std::string_view> known = errorWords(code)) {
        return sentence + std::string(*known) + " (" + std::string(code) + ")";
    }
    return sentence + std::string(code);
}

PlistDictionary failureObject(std::string_view verb, std::string_view operation,
                              const PlistValue& response, const std::string& thrown,
                              int exitStatus) {
    PlistDictionary failure;
    if (!verb.empty()) {
        failure.set("verb", PlistValue(std::string(verb)));
    }
    failure.set("operation", PlistValue(std::string(operation)));
    const PlistDictionary* answer = response.asDictionary();
    const PlistValue* error = answer != nullptr ? answer->find("error") : nullptr;
    if (error != nullptr && error->asString() != nullptr) {
        const std::string& code = *error->asString();
        failure.set("code", PlistValue(code));
        failure.set("words", PlistValue(std::string(errorWords(code).value_or(code))));
    } else if (!thrown.empty()) {
        // Named as "type: what" when it was thrown.
        std::size_t colon = thrown.find(": ");
        failure.set("exception",
                    PlistDictionary{{"type", PlistValue(thrown.substr(0, colon))},
                                    {"what", PlistValue(colon == std::string::npos
                                                            ? std::string()
                                                            : thrown.substr(colon + 2))}});
    }
    failure.set("exitStatus", PlistValue::integer(exitStatus));
    PlistDictionary object{{"failure", PlistValue(std::move(failure))}};
    if (!response.isAbsent()) {
        object.set("response", response);
    }
    return object;
}

PlistValue humanView(const PlistValue& response) {
    const PlistDictionary* answer = response.asDictionary();
    if (answer == nullptr) {
        return response;
    }
    PlistDictionary shown = *answer;
    for (std::string_view field : kProtocolFields) {
        shown.remove(field);
    }
    if (const PlistValue* state = shown.find("state"); state && state->asString()) {
        std::string lower = *state->asString();
        for (char& letter : lower) {
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        }
        shown.set("state", PlistValue(std::move(lower)));
    }
    return PlistValue(std::move(shown));
}

support::Result<LogMark> markLog(const std::string& path) {
    support::Result<support::UniqueFd> log = openLog(path);
    if (!log) {
        if (log.error() == ENOENT) {
            return LogMark{path, 0};
        }
        return log.failure();
    }
    struct stat status;
    fstat(log->get(), &status);
    return LogMark{path, status.st_size};
}

support::Result<std::string> appendedSince(const LogMark& mark, std::size_t limit) {
    support::Result<support::UniqueFd> log = openLog(mark.path);
    if (!log) {
        return log.failure();
    }
    struct stat status;
    fstat(log->get(), &status);
    off_t from = status.st_size < mark.size ? 0 : mark.size;
    bool cut = static_cast<std::size_t>(status.st_size - from) > limit;
    if (cut) {
        // One byte more than the limit, the one before the cut: when it ends a line, the line
        // after it is whole and stays.
        from = status.st_size - static_cast<off_t>(limit) - 1;
    }
    std::string text(static_cast<std::size_t>(status.st_size - from), '\0');
    ssize_t got = pread(log->get(), text.data(), text.size(), from);
    if (got < 0) {
        return support::couldNot("read the log", mark.path, errno);
    }
    text.resize(static_cast<std::size_t>(got));
    if (cut) {
        // Up to the first line's end; a single line longer than the limit shows its end.
        const std::size_t end = text.find('\n');
        text.erase(0, end == std::string::npos ? 1 : end + 1);
    }
    return text;
}

std::optional<ClientTitle> parseClientTitle(pid_t pid, std::string_view title) {
    // The server pads a shorter title than the one before it.
    while (!title.empty() && (title.back() == ' ' || title.back() == '\0')) {
        title.remove_suffix(1);
    }
    if (!title.starts_with(kServerTitlePrefix)) {
        return std::nullopt;
    }
    title.remove_prefix(kServerTitlePrefix.size());
    ClientTitle client{pid, {}, {}, {}, {}};
    for (std::string* field : {&client.user, &client.database, &client.host}) {
        std::optional<std::string_view> word = takeWord(title);
        if (!word) {
            return std::nullopt;
        }
        *field = *word;
    }
    std::size_t state = title.find_first_not_of(' ');
    if (state == std::string_view::npos || !isClientHost(client.host)) {
        return std::nullopt;
    }
    client.state = title.substr(state);
    return client;
}

std::vector<ClientProcess> clientProcesses() {
    std::vector<ClientProcess> found;
    for (pid_t pid : processIds()) {
        std::optional<ClientTitle> client = parseClientTitle(pid, processTitle(pid));
        std::optional<uid_t> owner = client ? ownerOf(pid) : std::nullopt;
        if (owner) {
            found.push_back(ClientProcess{std::move(*client), *owner, parentOf(pid)});
        }
    }
    return found;
}

std::vector<ClientTitle> serverClients() {
    std::vector<ClientTitle> clients;
    for (ClientProcess& process : clientProcesses()) {
        if (runsServerProgram(process.parent)) {
            clients.push_back(std::move(process.client));
        }
    }
    return clients;
}

}  // namespace velnor::host
