#include "service/LivenessProbe.h"

#include <memory>

#include "handler/Constants.h"
#include "platform/Libpq.h"

namespace velnor::postgres {
namespace {

struct ConnectionCloser {
    void operator()(PGconn* connection) const { platform::pqFinish(connection); }
};
// Closes the connection whether or not it was made: a failed attempt holds memory too.
using Connection = std::unique_ptr<PGconn, ConnectionCloser>;

}  // namespace

bool postgresIsResponding(std::int32_t* serverVersion) {
    const Connection connection(platform::pqConnectdb(kPostgresConnInfo));
    if (platform::pqStatus(connection.get()) != CONNECTION_OK) {
        return false;
    }
    if (serverVersion) {
        *serverVersion = platform::pqServerVersion(connection.get());
    }
    return true;
}

}  // namespace velnor::postgres
