// Process-wide diagnostic log: rotating files under the user's home,
// written through spdlog. Call sites log through ZOR_LOG, which formats a
// printf-style message into 256 bytes and tags it with the module name
// (the constant kLogModule in scope), the line and the function. Inside a
// lambda, whose __func__ is "operator()", ZOR_LOG_AS names the enclosing
// function instead.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

struct LogFileEntry {
    std::string path;
    std::time_t mtime;
};

// Sets the logger up on the first call; later calls return at once.
void InitLogger();
void LogInfo(const std::string &msg, const char *file, int line, const char *func);
void LogDebug(const std::string &msg, const char *file, int line, const char *func);
// Deletes all but the `keep` newest files of `dir` whose name contains ".txt".
void removeOldLogFiles(const std::string &dir, size_t keep);

namespace zor {

// The path of the current log file; empty until InitLogger has run.
std::string currentLogFile();

void logInfoFormatted(const char *module, int line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

} // namespace zor

#define ZOR_LOG(...) ::zor::logInfoFormatted(kLogModule, __LINE__, __func__, __VA_ARGS__)
#define ZOR_LOG_AS(function, ...) ::zor::logInfoFormatted(kLogModule, __LINE__, function, __VA_ARGS__)
