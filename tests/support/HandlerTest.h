// The fixture of the handler's unit tests: a fresh fake platform in which the socket and log
// folders are in place, so that the housekeeping costs two existence tests and changes nothing.
#pragma once

#include "FakePlatform.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::testing {

class HandlerTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        platform().addFolder("/var/pgsql_socket");
        platform().addFolder("/Library/Logs/PostgreSQL");
    }
    postgres::PostgresRequestHandler handler;
};

}  // namespace velnor::testing
