// SPDX-License-Identifier: MIT
#pragma once
// The process-wide writer behind LogMsg. Internal to the engine: hosts use
// log/Log.h.

#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "log/Log.h"

class Logger : public LoggerBase {
public:
    Logger();
    explicit Logger(bool useConsole);
    Logger(bool useConsole, std::string logPath, std::string apiLogPath);
    ~Logger() override;

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Writes a finished text and a line end to the target's file, and in
    // colour to standard output when both the logger and `console` allow it.
    void AddLogMsg(QKLogTarget target, const char* text, QKLogMsgType type, bool console);

    static void GetDefaultLogPath(std::string& logPath, std::string& apiLogPath);

    // Cuts an existing log to its last megabyte of whole lines.
    static void TrimLogFile(std::string path);

private:
    void Init(bool useConsole, std::string logPath, std::string apiLogPath);

    std::string logPath;
    std::string apiLogPath;
    std::mutex logMutex;
    bool useConsole = false;
    std::ofstream logFile;
    std::ofstream apiLogFile;
};

// The one logger, made with the default settings on first use.
std::shared_ptr<Logger> getLogger();
