// The libpq calls of the liveness probe. The library is loaded the first time a probe needs it,
// so that the operations which never probe do not load it, nor the TLS, Kerberos and directory
// libraries it brings along.
#pragma once

#include <libpq-fe.h>

namespace velnor::platform {

/** @see PQconnectdb; nullptr, with the reason logged, when libpq cannot be loaded */
PGconn* pqConnectdb(const char* conninfo);
/** @see PQstatus; CONNECTION_BAD for nullptr */
ConnStatusType pqStatus(const PGconn* connection);
/** @see PQserverVersion */
int pqServerVersion(const PGconn* connection);
/** @see PQfinish; nothing for nullptr */
void pqFinish(PGconn* connection);

}  // namespace velnor::platform
