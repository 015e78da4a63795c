// The logger as its readers see it: the bytes it leaves in the two log files
// and on standard output. A logger exists once per process and trims its logs
// when it is made, so every case does its logging in a child forked from this
// process, which itself never logs.

#include <gtest/gtest.h>

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/Log.h"

namespace {

const std::string kBlankStart = "\n\n\n";
const std::size_t kKeepBytes = 1048576;
const std::string kNoThread = "thread::id of a non-executing thread";
const std::string kReset = "\033[0m";
constexpr int kSkipExit = 77;

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return !out.fail();
}

bool Exists(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

// Lines of a text, each without its line end.
std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string Join(const std::vector<std::string>& lines, std::size_t from = 0)
{
    std::string text;
    for (std::size_t i = from; i < lines.size(); ++i)
        text += lines[i] + "\n";
    return text;
}

// Big files compare badly with EXPECT_EQ; this names the first difference.
::testing::AssertionResult SameBytes(const std::string& actual, const std::string& expected)
{
    if (actual == expected)
        return ::testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at])
        ++at;
    return ::testing::AssertionFailure()
           << "sizes " << actual.size() << " and " << expected.size() << ", first difference at "
           << at << ": \"" << actual.substr(at, 40) << "\" where \"" << expected.substr(at, 40)
           << "\" was expected";
}

// Local time as a line head shows it, without the type word.
std::string NowStamp()
{
    struct timeval now {};
    gettimeofday(&now, nullptr);
    const time_t seconds = now.tv_sec;
    struct tm local {};
    localtime_r(&seconds, &local);
    char stamp[32];
    snprintf(stamp, sizeof stamp, "%02d-%02d %02d:%02d:%02d.%03d", local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(now.tv_usec / 1000));
    return stamp;
}

// Type word, month-day and time to the millisecond: the first 22 characters.
constexpr std::size_t kHeadLength = 22;
// Where the source mark of a short first line begins.
constexpr std::size_t kMarkColumn = kHeadLength + 3 + 70;

bool IsNumber(const std::string& text)
{
    if (text.empty())
        return false;
    for (char c : text)
        if (!isdigit(static_cast<unsigned char>(c)))
            return false;
    return true;
}

bool IsHead(const std::string& head)
{
    static const char shape[] = "WWW 00-00 00:00:00.000";
    if (head.size() != kHeadLength)
        return false;
    const std::string word = head.substr(0, 3);
    if (word != "DEB" && word != "INF" && word != "ERR")
        return false;
    for (std::size_t i = 3; i < kHeadLength; ++i)
        if (shape[i] == '0' ? !isdigit(static_cast<unsigned char>(head[i])) : head[i] != shape[i])
            return false;
    return true;
}

// Checks the head of a line and gives what follows it.
::testing::AssertionResult AfterHead(const std::string& line, std::string* rest)
{
    if (line.size() < kHeadLength || !IsHead(line.substr(0, kHeadLength)))
        return ::testing::AssertionFailure() << "no line head in \"" << line << "\"";
    *rest = line.substr(kHeadLength);
    return ::testing::AssertionSuccess();
}

// The first line of a message taken apart; `message` without its filling.
struct FirstLine {
    std::string word;
    std::string stamp;
    std::string message;
    std::string file;
    std::string line;
    std::string thread;
    std::size_t markColumn = 0;
};

::testing::AssertionResult ParseFirstLine(const std::string& text, FirstLine* out)
{
    std::string rest;
    ::testing::AssertionResult head = AfterHead(text, &rest);
    if (!head)
        return head;
    const std::size_t mark = text.rfind(" | ");
    const std::size_t open = text.rfind(" [");
    const std::size_t colon = open == std::string::npos ? open : text.rfind(':', open);
    if (rest.compare(0, 3, " | ") != 0 || mark < kMarkColumn || open == std::string::npos ||
        colon == std::string::npos || colon < mark || text.back() != ']')
        return ::testing::AssertionFailure() << "not a first line: \"" << text << "\"";
    out->word = text.substr(0, 3);
    out->stamp = text.substr(4, kHeadLength - 4);
    out->message = text.substr(kHeadLength + 3, mark - kHeadLength - 3);
    out->message.erase(out->message.find_last_not_of(' ') + 1);
    out->file = text.substr(mark + 3, colon - mark - 3);
    out->line = text.substr(colon + 1, open - colon - 1);
    out->thread = text.substr(open + 2, text.size() - open - 3);
    out->markColumn = mark;
    return ::testing::AssertionSuccess();
}

std::string Padded(const std::string& message)
{
    return message.size() < 70 ? message + std::string(70 - message.size(), ' ') : message;
}

// The part of a first line behind the head.
std::string FirstLineTail(const std::string& message, const std::string& file, int line,
                          const std::string& thread = kNoThread)
{
    return " | " + Padded(message) + " | " + file + ":" + std::to_string(line) + " [" + thread + "]";
}

// Makes the calling process see `dir` as /tmp, read-only if asked. False
// where this user may not have a mount namespace of its own.
bool UsePrivateTmp(const std::string& dir, bool writable)
{
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        WriteFile("/proc/self/setgroups", "deny");
        if (!WriteFile("/proc/self/uid_map", "0 " + uid + " 1\n") ||
            !WriteFile("/proc/self/gid_map", "0 " + gid + " 1\n"))
            return false;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if (mount(dir.c_str(), "/tmp", nullptr, MS_BIND, nullptr) != 0)
        return false;
    if (writable)
        return true;
    // A remount inside a user namespace must keep the flags it inherited.
    struct statvfs fs {};
    if (statvfs("/tmp", &fs) != 0)
        return false;
    unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
    const std::pair<unsigned long, unsigned long> kept[] = {
        {ST_NOSUID, MS_NOSUID},     {ST_NODEV, MS_NODEV},         {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME},   {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (const auto& flag : kept)
        if (fs.f_flag & flag.first)
            flags |= flag.second;
    return mount(nullptr, "/tmp", nullptr, flags, nullptr) == 0;
}

// Set by a child that wants to log while the statics are torn down.
bool logDuringTeardown = false;

// Made ahead of all statics of default priority, the logger's among them,
// so it goes after them at exit.
struct TeardownLogger {
    ~TeardownLogger()
    {
        if (logDuringTeardown)
            LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "teardown.cpp", 1, std::thread::id(), "too late");
    }
};
TeardownLogger teardownLogger __attribute__((init_priority(101)));

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/qkcam-logtest-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
    }

    void TearDown() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }

    std::string Path(const std::string& name) const { return dir + "/" + name; }

    // Runs `body` in a fresh child that ends through exit(), as a process
    // ends normally; its standard output is kept for Stdout(). Gives the exit
    // status, or -1 if the child was killed.
    int Run(const std::function<void()>& body)
    {
        fflush(nullptr);
        std::cout.flush();
        const pid_t pid = fork();
        if (pid < 0)
            return -1;
        if (pid == 0) {
            const int out = open(Path("stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (out < 0 || dup2(out, STDOUT_FILENO) < 0)
                _exit(90);
            close(out);
            body();
            std::exit(0);
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0)
            if (errno != EINTR)
                return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string Stdout() const { return ReadFile(Path("stdout")); }

    std::string dir;
};

// ---------------------------------------------------------------------------
// Line format

TEST_F(LoggerTest, LineShowsTypeWordDateTimeSourceAndThread)
{
    const std::string before = NowStamp();
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        const std::thread::id self = std::this_thread::get_id();
        const unsigned long tid = static_cast<unsigned long>(pthread_self());
        LogMsg(QK_LOG_MAIN, QK_LOG_DEBUG, "cam/a.cpp", 1, self, "debug %lu", tid);
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "cam/b.cpp", 22, self, "info %lu", tid);
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "cam/c.cpp", 333, self, "error %lu", tid);
        LogMsg(QK_LOG_MAIN, static_cast<QKLogMsgType>(3), "cam/d.cpp", 4444, self, "other %lu",
               tid);
        QK_LOG_INF("macro %lu %d", tid, __LINE__);
    }));
    const std::string after = NowStamp();

    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(8u, lines.size());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ("", lines[i]);

    const char* words[] = {"DEB", "INF", "ERR", "DEB", "INF"};
    const char* texts[] = {"debug", "info", "error", "other", "macro"};
    const char* files[] = {"cam/a.cpp", "cam/b.cpp", "cam/c.cpp", "cam/d.cpp", __FILE__};
    const char* sourceLines[] = {"1", "22", "333", "4444", nullptr};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(lines[3 + i]);
        FirstLine first;
        ASSERT_TRUE(ParseFirstLine(lines[3 + i], &first));
        EXPECT_EQ(words[i], first.word);
        // Fixed-width fields: text order is time order within a year.
        if (before <= after) {
            EXPECT_LE(before, first.stamp);
            EXPECT_GE(after, first.stamp);
        }
        std::istringstream message(first.message);
        std::string text, thread, macroLine;
        message >> text >> thread >> macroLine;
        EXPECT_EQ(texts[i], text);
        EXPECT_EQ(files[i], first.file);
        EXPECT_EQ(sourceLines[i] ? sourceLines[i] : macroLine, first.line);
        // The message carries the thread's number as the system knows it.
        EXPECT_TRUE(IsNumber(first.thread));
        EXPECT_EQ(thread, first.thread);
        EXPECT_EQ(kMarkColumn, first.markColumn);
    }
}

TEST_F(LoggerTest, EmptyMessageIsFilledTo70Blanks)
{
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "src/x.cpp", 42, std::thread::id(), "%s", "");
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(4u, lines.size());
    std::string tail;
    ASSERT_TRUE(AfterHead(lines[3], &tail));
    EXPECT_EQ(" | " + std::string(70, ' ') + " | src/x.cpp:42 [" + kNoThread + "]", tail);
    EXPECT_EQ("INF", lines[3].substr(0, 3));
}

TEST_F(LoggerTest, FirstLineIsFilledTo70ColumnsButNeverCut)
{
    const std::string m69(69, 'a'), m70(70, 'b'), m71(71, 'c'), m300(300, 'd');
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        const std::thread::id none;
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "w.cpp", 69, none, "%s", m69.c_str());
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "w.cpp", 70, none, "%s", m70.c_str());
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "w.cpp", 71, none, "%s", m71.c_str());
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "w.cpp", 300, none, "%s", m300.c_str());
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(7u, lines.size());
    const std::string expected[] = {
        " | " + m69 + " " + " | w.cpp:69 [" + kNoThread + "]",
        " | " + m70 + " | w.cpp:70 [" + kNoThread + "]",
        " | " + m71 + " | w.cpp:71 [" + kNoThread + "]",
        " | " + m300 + " | w.cpp:300 [" + kNoThread + "]",
    };
    for (int i = 0; i < 4; ++i) {
        std::string tail;
        ASSERT_TRUE(AfterHead(lines[3 + i], &tail));
        EXPECT_EQ(expected[i], tail);
    }
}

TEST_F(LoggerTest, FurtherLinesCarryTheHeadOnly)
{
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        const std::thread::id none;
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "m.cpp", 1, none, "first\nsecond");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "m.cpp", 2, none, "one\ntwo\n");
        LogMsg(QK_LOG_MAIN, QK_LOG_DEBUG, "m.cpp", 3, none, "top\n\nbottom");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "m.cpp", 4, none, "\n");
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    // Blank start, then 2 + 2 + 3 + 1 lines: a closing line end adds none.
    ASSERT_EQ(11u, lines.size());
    struct Expect {
        std::size_t first;
        std::vector<std::string> tails;
    };
    const Expect messages[] = {
        {3, {FirstLineTail("first", "m.cpp", 1), " | second"}},
        {5, {FirstLineTail("one", "m.cpp", 2), " | two"}},
        {7, {FirstLineTail("top", "m.cpp", 3), " | ", " | bottom"}},
        {10, {FirstLineTail("", "m.cpp", 4)}},
    };
    for (const Expect& message : messages) {
        const std::string head = lines[message.first].substr(0, kHeadLength);
        for (std::size_t i = 0; i < message.tails.size(); ++i) {
            const std::string& line = lines[message.first + i];
            SCOPED_TRACE(line);
            std::string tail;
            ASSERT_TRUE(AfterHead(line, &tail));
            EXPECT_EQ(head, line.substr(0, kHeadLength));
            EXPECT_EQ(message.tails[i], tail);
        }
    }
}

TEST_F(LoggerTest, MessageIsCutTo4095Characters)
{
    const std::string longLine(5000, 'q');
    const std::string nearEnd = std::string(4090, 'r') + "\nabcdefghij";
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "l.cpp", 5, std::thread::id(), "%s", longLine.c_str());
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "l.cpp", 6, std::thread::id(), "%s", nearEnd.c_str());
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(6u, lines.size());
    std::string tail;
    ASSERT_TRUE(AfterHead(lines[3], &tail));
    EXPECT_EQ(FirstLineTail(std::string(4095, 'q'), "l.cpp", 5), tail);
    ASSERT_TRUE(AfterHead(lines[4], &tail));
    EXPECT_EQ(FirstLineTail(std::string(4090, 'r'), "l.cpp", 6), tail);
    ASSERT_TRUE(AfterHead(lines[5], &tail));
    EXPECT_EQ(" | abcd", tail);
}

TEST_F(LoggerTest, WideStringArguments)
{
    ASSERT_EQ(0, Run([&] {
        // The C locale, in which only ASCII converts.
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "s.cpp", 1, std::thread::id(), "name %S end", L"abc");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "s.cpp", 2, std::thread::id(), "name %S end",
               L"caf\u00e9");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "s.cpp", 3, std::thread::id(), "after");
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(6u, lines.size());
    const std::string expected[] = {
        FirstLineTail("name abc end", "s.cpp", 1),
        // Not convertible: the format stands in for the lost text.
        FirstLineTail("[unformatted] name %S end", "s.cpp", 2),
        FirstLineTail("after", "s.cpp", 3),
    };
    for (int i = 0; i < 3; ++i) {
        std::string tail;
        ASSERT_TRUE(AfterHead(lines[3 + i], &tail));
        EXPECT_EQ(expected[i], tail);
    }
}

const char* NoText()
{
    static const char* volatile none = nullptr;
    return none;
}

TEST_F(LoggerTest, MissingSourceFileOrFormatStillGivesALine)
{
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, NoText(), 9, std::thread::id(), "no file");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "f.cpp", 10, std::thread::id(), NoText(), 1);
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(5u, lines.size());
    std::string tail;
    ASSERT_TRUE(AfterHead(lines[3], &tail));
    EXPECT_EQ(FirstLineTail("no file", "", 9), tail);
    ASSERT_TRUE(AfterHead(lines[4], &tail));
    EXPECT_EQ(FirstLineTail("", "f.cpp", 10), tail);
}

// ---------------------------------------------------------------------------
// Creation, console and paths

TEST_F(LoggerTest, ConsoleAndPathsChosenBeforeFirstUse)
{
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(true, Path("main.log"), Path("api.log"));
        const std::thread::id none;
        LogMsg(QK_LOG_MAIN, QK_LOG_DEBUG, "c.cpp", 1, none, "debug");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "c.cpp", 2, none, "info");
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "c.cpp", 3, none, "error\nsecond line");
        LogMsg(QK_LOG_MAIN, static_cast<QKLogMsgType>(3), "c.cpp", 4, none, "other");
        LogMsg(QK_LOG_API, QK_LOG_INFO, "c.cpp", 5, none, "api");
    }));
    EXPECT_EQ(kBlankStart, ReadFile(Path("api.log")).substr(0, 3));
    const std::vector<std::string> api = Lines(ReadFile(Path("api.log")));
    ASSERT_EQ(4u, api.size());
    std::string tail;
    ASSERT_TRUE(AfterHead(api[3], &tail));
    EXPECT_EQ(FirstLineTail("api", "c.cpp", 5), tail);

    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(8u, lines.size());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ("", lines[i]);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(AfterHead(lines[3 + i], &tail));
    EXPECT_EQ(FirstLineTail("error", "c.cpp", 3), lines[5].substr(kHeadLength));

    // The start-up blanks stay off the console; each message is one coloured
    // block, whatever its number of lines.
    const std::string expected = "\033[0;30m" + lines[3] + kReset + "\n" +
                                 "\033[1;32m" + lines[4] + kReset + "\n" +
                                 "\033[1;31m" + lines[5] + "\n" + lines[6] + kReset + "\n" +
                                 "\033[1;30m" + lines[7] + kReset + "\n" +
                                 "\033[1;32m" + api[3] + kReset + "\n";
    EXPECT_EQ(expected, Stdout());
}

TEST_F(LoggerTest, LaterCreationRequestsAreIgnored)
{
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "i.cpp", 1, std::thread::id(), "one");
        LoggerSpecialInit(true);
        LoggerSpecialInit(true, Path("other.log"), Path("other_api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "i.cpp", 2, std::thread::id(), "two");
        std::shared_ptr<LoggerBase> first = GetLoggerRef();
        LoggerClient client;
        if (!first || first != GetLoggerRef())
            std::exit(3);
    }));
    EXPECT_EQ("", Stdout());
    EXPECT_FALSE(Exists(Path("other.log")));
    EXPECT_FALSE(Exists(Path("other_api.log")));
    EXPECT_EQ(kBlankStart, ReadFile(Path("api.log")));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(5u, lines.size());
    EXPECT_EQ(FirstLineTail("one", "i.cpp", 1), lines[3].substr(kHeadLength));
    EXPECT_EQ(FirstLineTail("two", "i.cpp", 2), lines[4].substr(kHeadLength));
}

TEST_F(LoggerTest, FirstLogMsgMakesTheDefaultLogger)
{
    const std::string tmp = Path("tmp");
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    const int status = Run([&] {
        if (!UsePrivateTmp(tmp, true))
            std::exit(kSkipExit);
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "d.cpp", 1, std::thread::id(), "first");
        LoggerSpecialInit(true);
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "d.cpp", 2, std::thread::id(), "second");
    });
    if (status == kSkipExit)
        GTEST_SKIP() << "no private mount namespace for /tmp";
    ASSERT_EQ(0, status);
    EXPECT_EQ("", Stdout());
    EXPECT_EQ(kBlankStart, ReadFile(tmp + "/qkdll_api.log"));
    const std::vector<std::string> lines = Lines(ReadFile(tmp + "/qkdll.log"));
    ASSERT_EQ(5u, lines.size());
    EXPECT_EQ(FirstLineTail("first", "d.cpp", 1), lines[3].substr(kHeadLength));
    EXPECT_EQ(FirstLineTail("second", "d.cpp", 2), lines[4].substr(kHeadLength));
}

TEST_F(LoggerTest, FirstLoggerClientMakesTheDefaultLogger)
{
    const std::string tmp = Path("tmp");
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    const int status = Run([&] {
        if (!UsePrivateTmp(tmp, true))
            std::exit(kSkipExit);
        LoggerClient client;
        // Nothing logged yet, but both logs are open and started.
        if (ReadFile("/tmp/qkdll.log") != kBlankStart || ReadFile("/tmp/qkdll_api.log") != kBlankStart)
            std::exit(3);
    });
    if (status == kSkipExit)
        GTEST_SKIP() << "no private mount namespace for /tmp";
    ASSERT_EQ(0, status);
    EXPECT_EQ(kBlankStart, ReadFile(tmp + "/qkdll.log"));
    EXPECT_EQ(kBlankStart, ReadFile(tmp + "/qkdll_api.log"));
}

TEST_F(LoggerTest, ReadOnlyTmpLosesLinesButRunsOn)
{
    const std::string tmp = Path("tmp");
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    const int status = Run([&] {
        if (!UsePrivateTmp(tmp, false))
            std::exit(kSkipExit);
        LoggerClient client;
        for (int i = 0; i < 3; ++i)
            QK_LOG_ERR("lost %d", i);
        if (!GetLoggerRef())
            std::exit(3);
    });
    if (status == kSkipExit)
        GTEST_SKIP() << "no private mount namespace for /tmp";
    ASSERT_EQ(0, status);
    EXPECT_TRUE(std::filesystem::is_empty(tmp));
}

TEST_F(LoggerTest, UnopenableLogsLoseLinesButConsoleGoesOn)
{
    ASSERT_TRUE(WriteFile(Path("plain"), "not a directory\n"));
    const std::string main = Path("plain") + "/qkdll.log";
    const std::string api = Path("missing") + "/qkdll_api.log";
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(true, main, api);
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "u.cpp", 1, std::thread::id(), "to nowhere");
        LogMsg(QK_LOG_API, QK_LOG_ERROR, "u.cpp", 2, std::thread::id(), "to nowhere");
    }));
    EXPECT_EQ("not a directory\n", ReadFile(Path("plain")));
    EXPECT_FALSE(Exists(Path("missing")));
    const std::vector<std::string> out = Lines(Stdout());
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ("\033[1;31m", out[0].substr(0, 7));
    EXPECT_EQ(FirstLineTail("to nowhere", "u.cpp", 1) + kReset, out[0].substr(7 + kHeadLength));
    EXPECT_EQ(FirstLineTail("to nowhere", "u.cpp", 2) + kReset, out[1].substr(7 + kHeadLength));
}

// ---------------------------------------------------------------------------
// Start of a run: blank lines and trimming

TEST_F(LoggerTest, EachRunAppendsThreeBlankLinesToEachLog)
{
    for (const char* text : {"run one", "run two"}) {
        ASSERT_EQ(0, Run([&] {
            LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
            LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "r.cpp", 1, std::thread::id(), "%s", text);
        }));
    }
    EXPECT_EQ(kBlankStart + kBlankStart, ReadFile(Path("api.log")));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(8u, lines.size());
    for (std::size_t blank : {0, 1, 2, 4, 5, 6})
        EXPECT_EQ("", lines[blank]);
    EXPECT_EQ(FirstLineTail("run one", "r.cpp", 1), lines[3].substr(kHeadLength));
    EXPECT_EQ(FirstLineTail("run two", "r.cpp", 1), lines[7].substr(kHeadLength));
}

// Lines of uneven length, some empty, adding up to at least `bytes`.
std::vector<std::string> MakeLines(std::size_t bytes, unsigned salt)
{
    std::vector<std::string> lines;
    std::size_t total = 0;
    for (unsigned i = 0; total < bytes; ++i) {
        std::string line;
        if (i % 37 != 0)
            line = "line " + std::to_string(i) + " " +
                   std::string((i * salt) % 211, static_cast<char>('a' + i % 26));
        total += line.size();
        lines.push_back(line);
    }
    return lines;
}

// Index of the first of the last lines that add up to at most 1 MiB.
std::size_t FirstKept(const std::vector<std::string>& lines)
{
    std::size_t first = lines.size();
    std::size_t total = 0;
    while (first > 0 && total + lines[first - 1].size() <= kKeepBytes)
        total += lines[--first].size();
    return first;
}

TEST_F(LoggerTest, LogsOverOneMiBKeepTheirLastWholeLines)
{
    const std::vector<std::string> mainLines = MakeLines(3 * kKeepBytes, 7);
    const std::vector<std::string> apiLines = MakeLines(2 * kKeepBytes, 13);
    ASSERT_TRUE(WriteFile(Path("main.log"), Join(mainLines)));
    // Without a closing line end, the last line still counts as a line.
    std::string api = Join(apiLines);
    api.pop_back();
    ASSERT_TRUE(WriteFile(Path("api.log"), api));

    ASSERT_EQ(0, Run([&] { LoggerSpecialInit(false, Path("main.log"), Path("api.log")); }));

    const std::size_t mainFirst = FirstKept(mainLines);
    const std::size_t apiFirst = FirstKept(apiLines);
    ASSERT_GT(mainFirst, 0u);
    ASSERT_GT(apiFirst, 0u);
    EXPECT_TRUE(SameBytes(ReadFile(Path("main.log")), Join(mainLines, mainFirst) + kBlankStart));
    EXPECT_TRUE(SameBytes(ReadFile(Path("api.log")), Join(apiLines, apiFirst) + kBlankStart));
}

TEST_F(LoggerTest, LogOfExactlyOneMiBIsLeftAsIs)
{
    // 1024 lines of 1024 bytes; no closing line end, so a rewrite would show.
    std::string exact;
    for (int i = 0; i < 1024; ++i)
        exact += (i ? "\n" : "") + std::string(1024, static_cast<char>('A' + i % 26));
    ASSERT_TRUE(WriteFile(Path("main.log"), exact));
    // One byte more: only the first line has to go.
    const std::string oneMore = "x\n" + exact + "\n";
    ASSERT_TRUE(WriteFile(Path("api.log"), oneMore));

    ASSERT_EQ(0, Run([&] { LoggerSpecialInit(false, Path("main.log"), Path("api.log")); }));

    EXPECT_TRUE(SameBytes(ReadFile(Path("main.log")), exact + kBlankStart));
    EXPECT_TRUE(SameBytes(ReadFile(Path("api.log")), oneMore.substr(2) + kBlankStart));
}

TEST_F(LoggerTest, OverlongLastLineEmptiesTheLog)
{
    ASSERT_TRUE(WriteFile(Path("main.log"), "a\nb\n" + std::string(kKeepBytes + 1, 'z') + "\n"));
    // A last line of exactly 1 MiB is all that stays.
    const std::string fits(kKeepBytes, 'y');
    ASSERT_TRUE(WriteFile(Path("api.log"), "a\n" + fits));

    ASSERT_EQ(0, Run([&] { LoggerSpecialInit(false, Path("main.log"), Path("api.log")); }));

    EXPECT_TRUE(SameBytes(ReadFile(Path("main.log")), kBlankStart));
    EXPECT_TRUE(SameBytes(ReadFile(Path("api.log")), fits + "\n" + kBlankStart));
}

// ---------------------------------------------------------------------------
// Threads and process end

TEST_F(LoggerTest, ThreadsMakeOneLoggerAndNeverInterleaveLines)
{
    constexpr int kThreads = 4;
    constexpr int kMessages = 150;
    ASSERT_EQ(0, Run([&] {
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                ++ready;
                while (ready < kThreads)
                    std::this_thread::yield();
                // They race to make the logger; one set of paths wins.
                LoggerSpecialInit(true, Path("main" + std::to_string(t)),
                                  Path("api" + std::to_string(t)));
                for (int m = 0; m < kMessages; ++m)
                    LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "t.cpp", t, std::this_thread::get_id(),
                           "t%d m%d a\nt%d m%d b\nt%d m%d c", t, m, t, m, t, m);
            });
        for (std::thread& thread : threads)
            thread.join();
    }));

    int winner = -1;
    for (int t = 0; t < kThreads; ++t)
        if (Exists(Path("main" + std::to_string(t)))) {
            EXPECT_EQ(-1, winner) << "second logger made by thread " << t;
            winner = t;
        }
    ASSERT_NE(-1, winner);
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(t == winner, Exists(Path("api" + std::to_string(t))));
    EXPECT_EQ(kBlankStart, ReadFile(Path("api" + std::to_string(winner))));

    const std::vector<std::string> lines = Lines(ReadFile(Path("main" + std::to_string(winner))));
    ASSERT_EQ(3u + 3u * kThreads * kMessages, lines.size());
    std::vector<int> next(kThreads, 0);
    std::vector<std::string> ids(kThreads);
    std::string console;
    for (std::size_t i = 3; i < lines.size(); i += 3) {
        FirstLine first;
        ASSERT_TRUE(ParseFirstLine(lines[i], &first));
        int t = -1;
        int m = -1;
        ASSERT_EQ(2, sscanf(first.message.c_str(), "t%d m%d", &t, &m)) << lines[i];
        ASSERT_TRUE(t >= 0 && t < kThreads) << lines[i];
        const std::string prefix = "t" + std::to_string(t) + " m" + std::to_string(m);
        EXPECT_EQ(prefix + " a", first.message);
        EXPECT_EQ(next[t]++, m) << lines[i];
        EXPECT_EQ("t.cpp", first.file);
        EXPECT_EQ(std::to_string(t), first.line);
        EXPECT_TRUE(IsNumber(first.thread));
        if (ids[t].empty())
            ids[t] = first.thread;
        EXPECT_EQ(ids[t], first.thread);
        const std::string head = lines[i].substr(0, kHeadLength);
        ASSERT_EQ(head + " | " + prefix + " b", lines[i + 1]);
        ASSERT_EQ(head + " | " + prefix + " c", lines[i + 2]);
        console += "\033[1;32m" + lines[i] + "\n" + lines[i + 1] + "\n" + lines[i + 2] + kReset + "\n";
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(kMessages, next[t]);
        for (int u = 0; u < t; ++u)
            EXPECT_NE(ids[u], ids[t]);
    }
    // The console saw the same messages in the same order.
    EXPECT_TRUE(SameBytes(Stdout(), console));
}

// Touching the released logger shows as a failed child in the sanitizer build.
TEST_F(LoggerTest, LoggingAfterTheLoggerIsReleasedIsDropped)
{
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "e.cpp", 1, std::thread::id(), "in time");
        logDuringTeardown = true;
    }));
    const std::vector<std::string> lines = Lines(ReadFile(Path("main.log")));
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(FirstLineTail("in time", "e.cpp", 1), lines[3].substr(kHeadLength));
}

} // namespace

// No logging here: each case starts its child without a logger.
int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
