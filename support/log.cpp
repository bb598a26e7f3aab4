#include "support/log.h"

#include "support/home_directory.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <mutex>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kMaxFileBytes = 1048576;
constexpr size_t kMaxFiles = 20;
constexpr size_t kMessageBytes = 256;
constexpr char kLogSubdirectory[] = "Library/Application Support/zor_sdk";

std::shared_ptr<spdlog::logger> g_logger;
// Readers go through this pointer so that a log call racing with the set-up
// of the logger sees either nothing or the finished logger.
std::atomic<spdlog::logger *> g_activeLogger{nullptr};
std::mutex g_loggerMutex;
std::string g_logFile;

// The log directory is created with its missing parents (on Linux the home
// has no "Library/Application Support"), but only below an existing home:
// never the home itself, nor anything above it. True when the directory is
// there afterwards.
bool makeLogDirectory(const std::string &home, mode_t mode)
{
    if (!zor::isDirectory(home))
        return false;
    const std::string sub = kLogSubdirectory;
    size_t end = 0;
    do {
        end = sub.find('/', end + 1);
        mkdir((home + "/" + sub.substr(0, end)).c_str(), mode);
    } while (end != std::string::npos);
    return zor::isDirectory(home + "/" + sub);
}

std::string timestampedStem()
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char name[64];
    std::strftime(name, sizeof name, "log_%Y-%m-%d_%H-%M-%S", &local);
    return name;
}

// Creates this process's own log file in `dir`: "log_<time>.txt", or
// "log_<time>_<pid>.txt" when a process started in the same second has taken
// that name, so that no two processes share a file (or its rotation). Empty
// when neither can be created.
std::string createLogFile(const std::string &dir)
{
    const std::string stem = dir + timestampedStem();
    for (const std::string &path : {stem + ".txt", stem + "_" + std::to_string(getpid()) + ".txt"}) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            close(fd);
            return path;
        }
    }
    return "";
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
    // The library never writes or prunes the working directory: without a
    // usable home the log is off, and nothing is created, pruned or printed.
    const std::string home = zor::homeDirectory();
    if (home.empty() || !makeLogDirectory(home, 0775))
        return;
    const std::string dir = home + "/" + kLogSubdirectory + "/";
    removeOldLogFiles(dir, kMaxFiles);
    const std::string file = createLogFile(dir);
    if (file.empty())
        return;
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
