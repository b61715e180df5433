// The literals that name the PostgreSQL service, shared by every subsystem of the plug-in.
#pragma once

namespace velnor::postgres {

// launchd label of the PostgreSQL job.
inline constexpr char kPostgresJobLabel[] = "org.postgresql.postgres";
// The job file whose ProgramArguments hold the server's whole configuration.
inline constexpr char kPostgresJobPlistPath[] =
    "/System/Library/LaunchDaemons/org.postgresql.postgres.plist";
// Folder of the server's Unix-domain socket.
inline constexpr char kPostgresSocketDir[] = "/var/pgsql_socket";
// Folder of the server's log files.
inline constexpr char kPostgresLogDir[] = "/Library/Logs/PostgreSQL";
// Data folder used when none is given.
inline constexpr char kPostgresDefaultDataDir[] = "/var/pgsql";
// Service account: owner and group of the service's folders and files, and the probe's user.
inline constexpr char kPostgresAccount[] = "_postgres";
// The server program: first launch argument, and the mark of a server process.
inline constexpr char kPostgresExecutable[] = "/usr/bin/postgres";
// libpq connection string of the liveness probe.
inline constexpr char kPostgresConnInfo[] = "dbname=postgres user=_postgres";
// Variant prefix with which start and stop skip the folder housekeeping.
inline constexpr char kSkipDependenciesVariant[] = "skipDependenciesChecks";
// Marker of the one-time log-directory migration; "%@" stands for the data folder.
inline constexpr char kLogDirMigrationMarkerFormat[] = "%@/.10.7.4_log_directory_updated";
// The log-directory setting as it stands in the launch arguments.
inline constexpr char kLogDirectorySetting[] = "log_directory=/Library/Logs/PostgreSQL";
// Log file name used when the launch arguments name none.
inline constexpr char kDefaultLogFileName[] = "PostgreSQL.log";
// Launch argument that precedes the data folder.
inline constexpr char kDataDirFlag[] = "-D";
// Launch argument that precedes each key=value setting.
inline constexpr char kSettingFlag[] = "-c";
// Text that begins every log message of the plug-in.
inline constexpr char kLogPrefix[] = "velnor_postgres: ";

}  // namespace velnor::postgres
