// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The engine's log: the main log and the API log, files and optionally the console.

#include <memory>
#include <string>
#include <thread>

/// Which log a line goes to.
enum QKLogTarget {
    QK_LOG_MAIN = 0, ///< the main log
    QK_LOG_API = 1,  ///< the API log
};

/// How a line is marked (DEB, INF, ERR) and coloured on the console.
enum QKLogMsgType {
    QK_LOG_DEBUG = 0, ///< details
    QK_LOG_INFO = 1,  ///< what happened
    QK_LOG_ERROR = 2, ///< what failed
};

/// What GetLoggerRef hands out: a share in the logger's life.
class LoggerBase {
public:
    virtual ~LoggerBase() = default;
};

/// The one logging call: writes a line with its time, thread, `file` and
/// `line` to the `target` log (and the console when it was asked for).
/// `format` is as for vsnprintf; %S takes a wide string; a message that
/// cannot be formatted is logged as "[unformatted] <format>". Creates the
/// logger with the default files on first use. Any thread; does nothing
/// once the logger is gone at exit.
void LogMsg(QKLogTarget target, QKLogMsgType type, const char* file, int line,
            std::thread::id thread, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

/// Creates the logger before its first use, with the default files
/// /tmp/qkdll.log and /tmp/qkdll_api.log, and lines on standard output too
/// when `useConsole`; calls after the logger exists are ignored. Call it
/// before the first camera operation, from one thread.
void LoggerSpecialInit(bool useConsole);
/// The same with the two log files' paths.
void LoggerSpecialInit(bool useConsole, std::string logPath, std::string apiLogPath);

/// A share in the logger, so that it outlives the holder; creates it with
/// the default files if needed. Any thread.
std::shared_ptr<LoggerBase> GetLoggerRef();

/// Base of the long-lived classes: keeps the logger alive while they live.
class LoggerClient {
public:
    /// Takes a share in the logger.
    LoggerClient() : loggerRef(GetLoggerRef()) {}
    virtual ~LoggerClient() = default;

private:
    std::shared_ptr<LoggerBase> loggerRef;
};

/// The part of a path behind its last backslash, or the whole path.
constexpr const char* QKLogFileName(const char* path)
{
    const char* name = path;
    for (const char* p = path; *p; ++p)
        if (*p == '\\')
            name = p + 1;
    return name;
}

/// Logs to the main log with this source file and line and the calling thread.
#define QK_LOG(type, ...)                                                        \
    LogMsg(QK_LOG_MAIN, (type), QKLogFileName(__FILE__), __LINE__,               \
           std::this_thread::get_id(), __VA_ARGS__)
/// An error line in the main log.
#define QK_LOG_ERR(...) QK_LOG(QK_LOG_ERROR, __VA_ARGS__)
/// An information line in the main log.
#define QK_LOG_INF(...) QK_LOG(QK_LOG_INFO, __VA_ARGS__)
/// A debug line in the main log.
#define QK_LOG_DEB(...) QK_LOG(QK_LOG_DEBUG, __VA_ARGS__)
