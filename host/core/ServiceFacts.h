// The facts of the one service this host serves: its job, its server program, the title its
// server gives a client's process and the words for the error codes its plug-in answers.
//
// They live here, and not in the plug-in's descriptor, because the host serves this one
// plug-in: the descriptor's interface stays the one the plug-in already implements, and a fact
// that changes changes in one header that every part of the host reads. A host that served
// other plug-ins would have them carry these facts instead.
#pragma once

#include <optional>
#include <string_view>

namespace velnor::host {

// The service's job, as the job manager knows it.
inline constexpr const char* kServiceLabel = "org.postgresql.postgres";

// The job file that holds the service's launch arguments and account.
inline constexpr const char* kServiceJobFile =
    "/System/Library/LaunchDaemons/org.postgresql.postgres.plist";

// Where the platform's client library looks for the server's socket when nothing says
// otherwise.
inline constexpr const char* kServerSocketFolder = "/var/pgsql_socket";

// The start of the path of the server program that the job runs ("/usr/bin/postgres-15").
inline constexpr std::string_view kServerProgramPrefix = "/usr/bin/postgres";

// How the server's children title themselves: "postgres: USER DATABASE HOST STATE".
inline constexpr std::string_view kServerTitlePrefix = "postgres: ";

// What the plug-in's housekeeping logs when it finds one of the service's folders missing and
// creates it again: "Created socket folder /var/pgsql_socket".
struct FolderNotice {
    std::string_view folder;
    std::string_view words;
};
inline constexpr FolderNotice kFolderPutBackNotices[] = {
    {"socket", "Created socket folder "},
    {"log", "Created log folder "},
};

struct ErrorCodeWords {
    std::string_view code;
    std::string_view words;
};

// The error codes the plug-in answers, in words. Start and stop each wait four half seconds
// for the server's answer.
inline constexpr ErrorCodeWords kErrorCodeWords[] = {
    {"CANNOT_START_SERVICE_TIMEOUT_ERR", "the server did not answer within 2 s"},
    {"CANNOT_START_SERVICE_ERR", "launchd could not run the server's job"},
    {"CANNOT_STOP_SERVICE_TIMEOUT_ERR", "the server still answered 2 s after the stop"},
    {"CANNOT_STOP_SERVICE_ERR", "launchd could not stop the server's job"},
};

// The words for an error code that the plug-in answers; nothing for a code it does not have,
// whose text then speaks for itself.
inline std::optional<std::string_view> errorWords(std::string_view code) {
    for (const ErrorCodeWords& known : kErrorCodeWords) {
        if (known.code == code) {
            return known.words;
        }
    }
    return std::nullopt;
}

}  // namespace velnor::host
