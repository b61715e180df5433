// The libpq calls of the liveness probe.
#pragma once

#include <libpq-fe.h>

namespace velnor::platform {

/** @see PQconnectdb */
PGconn* pqConnectdb(const char* conninfo);
/** @see PQstatus */
ConnStatusType pqStatus(const PGconn* connection);
/** @see PQserverVersion */
int pqServerVersion(const PGconn* connection);
/** @see PQfinish */
void pqFinish(PGconn* connection);

}  // namespace velnor::platform
