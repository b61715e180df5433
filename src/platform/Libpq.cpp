#include "platform/Libpq.h"

namespace velnor::platform {

PGconn* pqConnectdb(const char* conninfo) {
    return PQconnectdb(conninfo);
}

ConnStatusType pqStatus(const PGconn* connection) {
    return PQstatus(connection);
}

int pqServerVersion(const PGconn* connection) {
    return PQserverVersion(connection);
}

void pqFinish(PGconn* connection) {
    PQfinish(connection);
}

}  // namespace velnor::platform
