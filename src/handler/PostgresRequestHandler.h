// The request handler of the PostgreSQL service plug-in.
//
// The handler holds nothing of its own: every operation reads what it needs afresh from the job
// file, the file system, launchd, the process table and a test connection to the database.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "PluginRequestHandler.h"

namespace velnor::postgres {

class PostgresRequestHandler final : public PluginRequestHandler {
  public:
    // Run once before the class is first used; there is nothing to prepare.
    static void initialize();

    // Chooses the data folder (a fresh one, created and given to the service account, or on
    // upgrade the existing one), then writes the default launch arguments for it.
    PlistDictionary initialSetupWithRequest(const PlistDictionary& request);
    // Merges the request's "configuration" into the stored settings, writes the new launch
    // arguments and restarts a running service so that it picks them up.
    PlistDictionary writeSettingsWithRequest(const PlistDictionary& request);
    // The settings and the data folder found in the launch arguments.
    PlistDictionary readSettingsWithRequest(const PlistDictionary& request);
    // Stops and starts the service when it runs. Always answers nothing.
    std::optional<PlistDictionary> recycleServiceWithVariant(const PlistValue& variant);
    // Ends idle clients and stops the service, waiting for the server to fall silent.
    // Nothing on success, else an error response.
    std::optional<PlistDictionary> stopServiceWithVariant(const PlistValue& variant);
    // Starts the service, waiting for the server to answer. Nothing on success, else an error
    // response.
    std::optional<PlistDictionary> startServiceWithVariant(const PlistValue& variant);
    // The path of the server's log file, from the launch arguments as they stand.
    PlistDictionary getLogPathsWithRequest(const PlistDictionary& request);
    // "RUNNING" or "STOPPED", and on request the data folder's condition and the probe's answer.
    PlistDictionary getStateWithRequest(const PlistDictionary& request);

    // Sends SIGTERM to every idle client process of the server. False when the process table
    // could not be had.
    bool shutDownIdleClients();
    // The non-empty pieces of the process's argument area; empty when it cannot be read.
    std::vector<std::string> commandLineArgumentsForPid(std::int32_t pid);

    // The host's periodic idle call: the folder housekeeping. Always 0.
    std::intptr_t doIdleAtCount(std::int32_t count);
    // Makes sure the log folder exists; in a call that had to create it, migrates the old
    // log-directory setting once.
    void createLogDir();
    // Makes sure the socket folder exists.
    void createSocketDir();
};

}  // namespace velnor::postgres
