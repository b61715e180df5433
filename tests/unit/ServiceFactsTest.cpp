// What the host knows of the one service it serves, as the command line and the console say it.
#include <gtest/gtest.h>

#include "Explanations.h"

namespace velnor::host {
namespace {

// Every code the plug-in answers has words, and the same words wherever the host shows them.
TEST(ServiceFacts, EachErrorCodeHasOneSentence) {
    const struct {
        std::string_view verb, code, sentence;
    } cases[] = {
        {"start", "CANNOT_START_SERVICE_TIMEOUT_ERR",
         "start failed: the server did not answer within 2 s (CANNOT_START_SERVICE_TIMEOUT_ERR)"},
        {"start", "CANNOT_START_SERVICE_ERR",
         "start failed: launchd could not run the server's job (CANNOT_START_SERVICE_ERR)"},
        {"stop", "CANNOT_STOP_SERVICE_TIMEOUT_ERR",
         "stop failed: the server still answered 2 s after the stop "
         "(CANNOT_STOP_SERVICE_TIMEOUT_ERR)"},
        {"stop", "CANNOT_STOP_SERVICE_ERR",
         "stop failed: launchd could not stop the server's job (CANNOT_STOP_SERVICE_ERR)"},
        {"restart", "SOMETHING_ELSE_ERR", "restart failed: SOMETHING_ELSE_ERR"},  // its own text
        {"stop", "", "stop failed: "},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(failureSentence(row.verb, row.code), row.sentence) << row.code;
    }
}

// The one reading of a server child's title, for the held stop and the console alike.
TEST(ServiceFacts, AClientsTitleNamesUserDatabaseHostAndState) {
    using namespace std::string_view_literals;
    const std::pair<std::string_view, const char*> cases[] = {
        {"postgres: app db [local] idle", "app|db|[local]|idle"},
        {"postgres: app db 10.0.0.1(5433) idle in transaction",
         "app|db|10.0.0.1(5433)|idle in transaction"},
        {"postgres:  app  db  [local]  SELECT  ", "app|db|[local]|SELECT"},
        {"postgres: app db [local] idle\0\0"sv, "app|db|[local]|idle"},  // padded
        {"postgres: checkpointer", nullptr},
        {"postgres: logical replication launcher", nullptr},
        {"postgres: app db [local]", nullptr},  // no state
        {"postgres: app db somewhere idle", nullptr},
        {"postgres -D /var/pgsql", nullptr},
        {"", nullptr},
    };
    for (const auto& [title, fields] : cases) {
        const std::optional<ClientTitle> client = parseClientTitle(7, title);
        EXPECT_EQ(client ? client->user + "|" + client->database + "|" + client->host + "|" +
                               client->state
                         : "<none>",
                  fields ? fields : "<none>")
            << title;
    }
}

}  // namespace
}  // namespace velnor::host
