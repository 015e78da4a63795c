#pragma once

#include <memory>
#include <string>
#include <thread>

enum QKLogTarget {
    QK_LOG_MAIN = 0,
    QK_LOG_API = 1,
};

enum QKLogMsgType {
    QK_LOG_DEBUG = 0,
    QK_LOG_INFO = 1,
    QK_LOG_ERROR = 2,
};

class LoggerBase {
public:
    virtual ~LoggerBase() = default;
};

// The one logging call. `format` is as for vsnprintf; %S takes a wide string.
void LogMsg(QKLogTarget target, QKLogMsgType type, const char* file, int line,
            std::thread::id thread, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

// Creates the logger before its first use; later calls are ignored.
void LoggerSpecialInit(bool useConsole);
void LoggerSpecialInit(bool useConsole, std::string logPath, std::string apiLogPath);

std::shared_ptr<LoggerBase> GetLoggerRef();

// Base of the long-lived classes: keeps the logger alive while they live.
class LoggerClient {
public:
    LoggerClient() : loggerRef(GetLoggerRef()) {}
    virtual ~LoggerClient() = default;

private:
    std::shared_ptr<LoggerBase> loggerRef;
};

// The part of a path behind its last backslash, or the whole path.
constexpr const char* QKLogFileName(const char* path)
{
    const char* name = path;
    for (const char* p = path; *p; ++p)
        if (*p == '\\')
            name = p + 1;
    return name;
}

#define QK_LOG(type, ...)                                                        \
    LogMsg(QK_LOG_MAIN, (type), QKLogFileName(__FILE__), __LINE__,               \
           std::this_thread::get_id(), __VA_ARGS__)
#define QK_LOG_ERR(...) QK_LOG(QK_LOG_ERROR, __VA_ARGS__)
#define QK_LOG_INF(...) QK_LOG(QK_LOG_INFO, __VA_ARGS__)
#define QK_LOG_DEB(...) QK_LOG(QK_LOG_DEBUG, __VA_ARGS__)
