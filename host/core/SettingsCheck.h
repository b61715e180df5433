// Asking the server program itself whether a setting and its value would be accepted, before
// either is written into the job file: a value the server rejects would keep the service from
// starting. The program runs as the service account with the job's data folder, as
// `PROGRAM -D DATADIR -C NAME -c NAME=VALUE`: no shell, an argument vector, a bounded time.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Result.h"
#include "ServiceFacts.h"

namespace velnor::host {

// What the job runs: its program, the data folder after its -D, and the account it runs as.
struct ServerProgram {
    std::string program;
    std::string dataFolder;
    std::string account;
};

// The server program of the job file at path. The file and its folders must be root's alone;
// fails, saying why, when they are not, or when the file names no program, -D or UserName.
support::Result<ServerProgram> serverProgramOfJob(const std::string& jobFile);

struct SettingVerdict {
    std::string name;
    std::string value;
    bool accepted = false;
    // What the server printed: the value it would use when accepted, else its error message.
    std::string serverSays;
};

// Splits "NAME=VALUE" at the first '='; fails when there is none or NAME is empty.
support::Result<std::pair<std::string, std::string>> splitSetting(const std::string& argument);

// Runs the server program once for the setting, and at most limit long. Fails when the name is
// not a setting name at all (letters, digits, '_' and '.'), the value holds a line feed or a
// zero byte, or the program could not be run or did not finish in time; a verdict otherwise.
support::Result<SettingVerdict> checkSetting(
    const ServerProgram& server, const std::string& name, const std::string& value,
    std::chrono::milliseconds limit = std::chrono::seconds(10));

// The verdicts of every setting, in order; the first failure ends the checks.
support::Result<std::vector<SettingVerdict>> checkSettings(
    const ServerProgram& server, const std::vector<std::pair<std::string, std::string>>& settings);

}  // namespace velnor::host
