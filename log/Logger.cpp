// SPDX-License-Identifier: MIT
#include "log/Logger.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <deque>
#include <iostream>
#include <sstream>
#include <utility>

namespace {

constexpr std::size_t kMaxLogBytes = 0x100000;
constexpr std::size_t kMessageBufferSize = 4096;
constexpr std::size_t kHeadBufferSize = 30;
constexpr std::size_t kFirstLineWidth = 70;
const char kResetColour[] = "\033[0m";

const char* TypeWord(QKLogMsgType type)
{
    switch (type) {
    case QK_LOG_INFO:
        return "INF";
    case QK_LOG_ERROR:
        return "ERR";
    default:
        return "DEB";
    }
}

const char* TypeColour(QKLogMsgType type)
{
    switch (type) {
    case QK_LOG_DEBUG:
        return "\033[0;30m";
    case QK_LOG_INFO:
        return "\033[1;32m";
    case QK_LOG_ERROR:
        return "\033[1;31m";
    default:
        return "\033[1;30m";
    }
}

void AppendThreadId(std::string& text, std::thread::id thread)
{
    if (thread == std::thread::id()) {
        text += "thread::id of a non-executing thread";
        return;
    }
    std::ostringstream number;
    number << thread;
    text += number.str();
}

} // namespace

static std::shared_ptr<Logger> g_Logger;
static std::once_flag loggerInitFlag;

// Statics of other sources may log from their destructors after g_Logger is
// gone; this is set just before that, so such lines are dropped instead of
// reaching a released object.
static std::atomic<bool> loggerReleased{false};
static struct LoggerReleaseMark {
    ~LoggerReleaseMark() { loggerReleased = true; }
} loggerReleaseMark;

Logger::Logger() : Logger(false) {}

Logger::Logger(bool useConsole)
{
    std::string logPath;
    std::string apiLogPath;
    GetDefaultLogPath(logPath, apiLogPath);
    Init(useConsole, std::move(logPath), std::move(apiLogPath));
}

Logger::Logger(bool useConsole, std::string logPath, std::string apiLogPath)
{
    Init(useConsole, std::move(logPath), std::move(apiLogPath));
}

Logger::~Logger()
{
    logFile.close();
    apiLogFile.close();
}

void Logger::Init(bool useConsole, std::string logPath, std::string apiLogPath)
{
    this->useConsole = useConsole;
    this->logPath = std::move(logPath);
    this->apiLogPath = std::move(apiLogPath);

    TrimLogFile(this->logPath);
    TrimLogFile(this->apiLogPath);

    // A file that can't be opened leaves its stream failed; it then swallows
    // every line, which is all the logger promises.
    logFile.open(this->logPath, std::ios::out | std::ios::app);
    apiLogFile.open(this->apiLogPath, std::ios::out | std::ios::app);

    for (int i = 0; i < 3; ++i) {
        AddLogMsg(QK_LOG_MAIN, "", QK_LOG_INFO, false);
        AddLogMsg(QK_LOG_API, "", QK_LOG_INFO, false);
    }
}

void Logger::AddLogMsg(QKLogTarget target, const char* text, QKLogMsgType type, bool console)
{
    if (!text)
        text = "";
    std::lock_guard<std::mutex> lock(logMutex);
    if (useConsole && console) {
        std::cout << TypeColour(type) << text << kResetColour << '\n';
        std::cout.flush();
    }
    std::ofstream& file = target == QK_LOG_API ? apiLogFile : logFile;
    // A full disk fails the stream; lines written once space is back must
    // not stay swallowed.
    file.clear();
    file << text << '\n';
    file.flush();
}

void Logger::GetDefaultLogPath(std::string& logPath, std::string& apiLogPath)
{
    const std::string dir = "/tmp";
    const std::string separator = "/";
    logPath = dir + separator + "qkdll.log";
    apiLogPath = dir + separator + "qkdll_api.log";
}

void Logger::TrimLogFile(std::string path)
{
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open())
        return;

    std::deque<std::string> lines;
    std::size_t total = 0;
    bool mustCut = false;
    std::string line;
    while (std::getline(in, line)) {
        total += line.size();
        lines.push_back(std::move(line));
        while (total > kMaxLogBytes && !lines.empty()) {
            mustCut = true;
            total -= lines.front().size();
            lines.pop_front();
        }
    }
    in.close();

    // Rewriting an unchanged file would only risk it.
    if (!mustCut)
        return;
    std::ofstream out(path, std::ios::out | std::ios::trunc | std::ios::binary);
    for (const std::string& kept : lines)
        out << kept << '\n';
}

std::shared_ptr<Logger> getLogger()
{
    if (loggerReleased)
        return nullptr;
    std::call_once(loggerInitFlag, [] { g_Logger = std::make_shared<Logger>(); });
    return g_Logger;
}

void LoggerSpecialInit(bool useConsole)
{
    if (loggerReleased)
        return;
    std::call_once(loggerInitFlag, [useConsole] { g_Logger = std::make_shared<Logger>(useConsole); });
}

void LoggerSpecialInit(bool useConsole, std::string logPath, std::string apiLogPath)
{
    if (loggerReleased)
        return;
    std::call_once(loggerInitFlag, [&] {
        g_Logger = std::make_shared<Logger>(useConsole, std::move(logPath), std::move(apiLogPath));
    });
}

std::shared_ptr<LoggerBase> GetLoggerRef()
{
    return getLogger();
}

void LogMsg(QKLogTarget target, QKLogMsgType type, const char* file, int line,
            std::thread::id thread, const char* format, ...)
{
    std::shared_ptr<Logger> logger = getLogger();
    if (!logger)
        return;

    char message[kMessageBufferSize] = {};
    if (format) {
        va_list args;
        va_start(args, format);
        const int written = vsnprintf(message, sizeof message, format, args);
        va_end(args);
        // An argument the locale can't convert (a wide character under %S)
        // fails the whole call; the format still says where the line came from.
        if (written < 0)
            snprintf(message, sizeof message, "[unformatted] %s", format);
    }

    struct timeval now {};
    gettimeofday(&now, nullptr);
    const time_t seconds = now.tv_sec;
    struct tm local {};
    localtime_r(&seconds, &local);

    char head[kHeadBufferSize] = {};
    const int headLength =
        snprintf(head, sizeof head, "%s %02d-%02d %02d:%02d:%02d.%03d", TypeWord(type),
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                 static_cast<int>(now.tv_usec / 1000));
    if (headLength < 0)
        head[0] = '\0';

    const char* lineEnd = strchr(message, '\n');
    const std::size_t firstLength =
        lineEnd ? static_cast<std::size_t>(lineEnd - message) : strlen(message);

    std::string text;
    text.reserve(strlen(message) + kFirstLineWidth + 128);
    text += head;
    text += " | ";
    text.append(message, firstLength);
    if (firstLength < kFirstLineWidth)
        text.append(kFirstLineWidth - firstLength, ' ');
    text += " | ";
    text += file ? file : "";
    text += ':';
    text += std::to_string(line);
    text += " [";
    AppendThreadId(text, thread);
    text += ']';

    // The rest carries no source mark; a closing line end adds no line.
    const char* rest = lineEnd ? lineEnd + 1 : nullptr;
    while (rest && *rest) {
        const char* end = strchr(rest, '\n');
        const std::size_t length = end ? static_cast<std::size_t>(end - rest) : strlen(rest);
        text += '\n';
        text += head;
        text += " | ";
        text.append(rest, length);
        rest = end ? end + 1 : nullptr;
    }

    logger->AddLogMsg(target, text.c_str(), type, true);
}
