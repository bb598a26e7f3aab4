#include "support/log.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <iostream>
#include <memory>
#include <mutex>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr size_t kMaxFileBytes = 1048576;
constexpr size_t kMaxFiles = 20;
constexpr size_t kMessageBytes = 256;

std::shared_ptr<spdlog::logger> g_logger;
// Readers go through this pointer so that a log call racing with the set-up
// of the logger sees either nothing or the finished logger.
std::atomic<spdlog::logger *> g_activeLogger{nullptr};
std::mutex g_loggerMutex;
std::string g_logFile;

// Creates every missing level of `path` (the log lives in a directory whose
// parents need not exist on Linux).
void makeDirectories(const std::string &path, mode_t mode)
{
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), mode);
    mkdir(path.c_str(), mode);
}

std::string timestampedFileName()
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char name[64];
    std::strftime(name, sizeof name, "log_%Y-%m-%d_%H-%M-%S.txt", &local);
    return name;
}

void logAt(spdlog::level::level_enum level, std::string_view msg, const char *file, int line, const char *func)
{
    spdlog::logger *logger = g_activeLogger.load(std::memory_order_acquire);
    if (!logger)
        return;
    logger->log(level, "[{}:{} {}] {}", file ? file : "", line, func ? func : "", msg);
}

} // namespace

void InitLogger()
{
    std::lock_guard<std::mutex> lock(g_loggerMutex);
    if (g_logger)
        return;
    const std::string dir = zor::logDirectory();
    makeDirectories(dir, 0775);
    removeOldLogFiles(dir, kMaxFiles);
    const std::string file = dir + timestampedFileName();
    try {
        auto logger = spdlog::rotating_logger_mt<spdlog::synchronous_factory>("rotating_file_logger", file,
                                                                              kMaxFileBytes, kMaxFiles, false);
        logger->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] %v", spdlog::pattern_time_type::local);
        spdlog::set_level(spdlog::level::debug);
        logger->flush_on(spdlog::level::info);
        spdlog::set_default_logger(logger);
        g_logger = logger;
        g_logFile = file;
        g_activeLogger.store(logger.get(), std::memory_order_release);
    } catch (const spdlog::spdlog_ex &) {
        // No log file can be written here; logging stays off.
    }
}

void LogInfo(const std::string &msg, const char *file, int line, const char *func)
{
    logAt(spdlog::level::info, msg, file, line, func);
}

void LogDebug(const std::string &msg, const char *file, int line, const char *func)
{
    logAt(spdlog::level::debug, msg, file, line, func);
}

void removeOldLogFiles(const std::string &dir, size_t keep)
{
    DIR *d = opendir(dir.c_str());
    if (!d) {
        std::cerr << "Failed to open directory: " << dir << std::endl;
        return;
    }
    std::vector<LogFileEntry> entries;
    while (dirent *entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name.find(".txt") == std::string::npos)
            continue;
        const std::string path = dir + "/" + name;
        struct stat st {};
        if (stat(path.c_str(), &st) != 0) {
            std::cerr << "Failed to get file write time: " << path << std::endl;
            continue;
        }
        if (S_ISREG(st.st_mode))
            entries.push_back({path, st.st_mtime});
    }
    closedir(d);
    if (entries.size() <= keep)
        return;
    std::sort(entries.begin(), entries.end(),
              [](const LogFileEntry &a, const LogFileEntry &b) { return a.mtime < b.mtime; });
    for (size_t i = 0; i < entries.size() - keep; ++i) {
        if (std::remove(entries[i].path.c_str()) != 0)
            std::cerr << "Failed to delete file: " << entries[i].path << std::endl;
    }
}

namespace zor {

std::string logDirectory()
{
    const char *home = std::getenv("HOME");
    if (!home)
        return "./";
    return std::string(home) + "/Library/Application Support/zor_sdk/";
}

std::string currentLogFile()
{
    std::lock_guard<std::mutex> lock(g_loggerMutex);
    return g_logFile;
}

void logInfoFormatted(const char *module, int line, const char *func, const char *fmt, ...)
{
    if (!g_activeLogger.load(std::memory_order_acquire))
        return;
    char message[kMessageBytes];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(message, sizeof message, fmt, args);
    va_end(args);
    // Straight to the logger: no string is built on the way.
    logAt(spdlog::level::info, message, module, line, func);
}

} // namespace zor
