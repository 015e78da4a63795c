// SPDX-License-Identifier: MIT
// The logger as its readers see it: the bytes it leaves in the two log files
// and on standard output. A logger exists once per process and trims its logs
// when it is made, so every case does its logging in a child forked from this
// process, which itself never logs.

#include <gtest/gtest.h>

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

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/Log.h"

namespace {

namespace fs = std::filesystem;

const std::string kBlankStart = "\n\n\n";
const std::size_t kKeepBytes = 1048576;
const std::string kNoThread = "thread::id of a non-executing thread";
const std::string kReset = "\033[0m";
constexpr int kSkipExit = 77;
// Type word, month-day and time to the millisecond.
constexpr std::size_t kHeadLength = 22;

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

// Lines of a text, each without its line end.
std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string Join(const std::vector<std::string>& lines, std::size_t from)
{
    std::string text;
    for (std::size_t i = from; i < lines.size(); ++i)
        text += lines[i] + "\n";
    return text;
}

// Big files compare badly with EXPECT_EQ; this names the first difference.
::testing::AssertionResult SameBytes(const std::string& actual, const std::string& expected)
{
    const std::size_t at = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end()).first -
                           actual.begin();
    if (actual == expected)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "sizes " << actual.size() << " and " << expected.size()
                                         << ", first difference at " << at << ": \"" << actual.substr(at, 40)
                                         << "\" where \"" << expected.substr(at, 40) << "\" was expected";
}

// Local time as a line head shows it, without the type word.
std::string NowStamp()
{
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm local {};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    const std::size_t length = strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &local);
    snprintf(stamp + length, sizeof stamp - length, ".%03d", static_cast<int>(now.tv_usec / 1000));
    return stamp;
}

bool HasHead(const std::string& line)
{
    static const std::regex head("(DEB|INF|ERR) \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}");
    return line.size() >= kHeadLength && std::regex_match(line.substr(0, kHeadLength), head);
}

// What a first line shows behind its head.
std::string Tail(const std::string& message, const std::string& file, int line,
                 const std::string& thread = kNoThread)
{
    const std::string filled = message.size() < 70 ? message + std::string(70 - message.size(), ' ') : message;
    return " | " + filled + " | " + file + ":" + std::to_string(line) + " [" + thread + "]";
}

// A message as a log shows it: its type word and each of its lines behind the head.
struct Shown {
    std::string word;
    std::vector<std::string> tails;
};

// A log with the time of each line's head replaced by "<time>", to compare whole.
std::string Timeless(const std::string& text)
{
    std::string out;
    for (const std::string& line : Lines(text))
        out += (HasHead(line) ? line.substr(0, 4) + "<time>" + line.substr(kHeadLength) : line) + "\n";
    return out;
}

// The blank start of a run, then exactly `messages`.
std::string Expected(const std::vector<Shown>& messages)
{
    std::string text = kBlankStart;
    for (const Shown& message : messages)
        for (const std::string& tail : message.tails)
            text += message.word + " <time>" + tail + "\n";
    return text;
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
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(dir.c_str(), "/tmp", nullptr, MS_BIND, nullptr) != 0)
        return false;
    if (writable)
        return true;
    // A remount inside a user namespace must keep the flags it inherited.
    struct statvfs st {};
    if (statvfs("/tmp", &st) != 0)
        return false;
    unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
    const std::pair<unsigned long, unsigned long> kept[] = {
        {ST_NOSUID, MS_NOSUID},     {ST_NODEV, MS_NODEV},         {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME},   {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (const auto& flag : kept)
        if (st.f_flag & flag.first)
            flags |= flag.second;
    return mount(nullptr, "/tmp", nullptr, flags, nullptr) == 0;
}

const char* NoText()
{
    static const char* volatile none = nullptr;
    return none;
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
        fs::remove_all(dir, ignored);
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

// Filling, cutting and splitting of messages, arguments that can't be
// formatted, and creation requests once the logger exists. Touching the
// released logger at exit shows as a failed child in the sanitizer build,
// run with the options ctest gives each test.
TEST_F(LoggerTest, MessagesAreLaidOutAsWritten)
{
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
    ASSERT_NE(nullptr, getenv("UBSAN_OPTIONS")) << "not run by ctest, or ctest lost the test environment";
#elif __has_feature(thread_sanitizer)
    const char* options = getenv("TSAN_OPTIONS");
    ASSERT_NE(std::string::npos, std::string(options ? options : "").find("suppressions="))
        << "not run by ctest, or ctest lost the test environment";
#endif
#endif
    const std::string m69(69, 'a'), m70(70, 'b'), m71(71, 'c'), m300(300, 'd');
    const std::string r4090(4090, 'r');
    struct Row {
        QKLogMsgType type;
        const char* file;
        int line;
        std::string text;
        Shown shown;
    };
    const Row rows[] = {
        {QK_LOG_INFO, "src/x.cpp", 42, "", {"INF", {Tail("", "src/x.cpp", 42)}}},
        {QK_LOG_ERROR, "w.cpp", 69, m69, {"ERR", {" | " + m69 + "  | w.cpp:69 [" + kNoThread + "]"}}},
        {QK_LOG_ERROR, "w.cpp", 70, m70, {"ERR", {" | " + m70 + " | w.cpp:70 [" + kNoThread + "]"}}},
        {QK_LOG_ERROR, "w.cpp", 71, m71, {"ERR", {" | " + m71 + " | w.cpp:71 [" + kNoThread + "]"}}},
        {QK_LOG_ERROR, "w.cpp", 300, m300, {"ERR", {Tail(m300, "w.cpp", 300)}}},
        // Further lines carry the head only; a closing line end adds none.
        {QK_LOG_ERROR, "m.cpp", 1, "first\nsecond", {"ERR", {Tail("first", "m.cpp", 1), " | second"}}},
        {QK_LOG_INFO, "m.cpp", 2, "one\ntwo\n", {"INF", {Tail("one", "m.cpp", 2), " | two"}}},
        {QK_LOG_DEBUG, "m.cpp", 3, "top\n\nbottom", {"DEB", {Tail("top", "m.cpp", 3), " | ", " | bottom"}}},
        {QK_LOG_INFO, "m.cpp", 4, "\n", {"INF", {Tail("", "m.cpp", 4)}}},
        // Cut to 4095 characters.
        {QK_LOG_INFO, "l.cpp", 5, std::string(5000, 'q'), {"INF", {Tail(std::string(4095, 'q'), "l.cpp", 5)}}},
        {QK_LOG_INFO, "l.cpp", 6, r4090 + "\nabcdefghij", {"INF", {Tail(r4090, "l.cpp", 6), " | abcd"}}},
    };
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(false, Path("main.log"), Path("api.log"));
        const std::thread::id none;
        for (const Row& row : rows)
            LogMsg(QK_LOG_MAIN, row.type, row.file, row.line, none, "%s", row.text.c_str());
        // In the C locale only ASCII converts.
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "s.cpp", 1, none, "name %S end", L"abc");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "s.cpp", 2, none, "name %S end", L"caf\u00e9");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, NoText(), 9, none, "no file");
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "f.cpp", 10, none, NoText(), 1);
        const std::shared_ptr<LoggerBase> first = GetLoggerRef();
        LoggerSpecialInit(true);
        LoggerSpecialInit(true, Path("other.log"), Path("other_api.log"));
        LogMsg(QK_LOG_MAIN, QK_LOG_INFO, "i.cpp", 2, none, "two");
        LoggerClient client;
        if (!first || first != GetLoggerRef())
            std::exit(3);
        logDuringTeardown = true;
    }));
    std::vector<Shown> expected;
    for (const Row& row : rows)
        expected.push_back(row.shown);
    expected.push_back({"INF", {Tail("name abc end", "s.cpp", 1)}});
    // Not convertible: the format stands in for the lost text.
    expected.push_back({"INF", {Tail("[unformatted] name %S end", "s.cpp", 2)}});
    expected.push_back({"INF", {Tail("no file", "", 9)}});
    expected.push_back({"INF", {Tail("", "f.cpp", 10)}});
    expected.push_back({"INF", {Tail("two", "i.cpp", 2)}});
    EXPECT_EQ(Timeless(ReadFile(Path("main.log"))), Expected(expected));
    EXPECT_EQ(kBlankStart, ReadFile(Path("api.log")));
    EXPECT_EQ("", Stdout());
    EXPECT_FALSE(fs::exists(Path("other.log")));
    EXPECT_FALSE(fs::exists(Path("other_api.log")));
}

TEST_F(LoggerTest, UnopenableLogsLoseLinesButConsoleGoesOn)
{
    ASSERT_TRUE(WriteFile(Path("plain"), "not a directory\n"));
    ASSERT_EQ(0, Run([&] {
        LoggerSpecialInit(true, Path("plain") + "/qkdll.log", Path("missing") + "/qkdll_api.log");
        LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "u.cpp", 1, std::thread::id(), "to nowhere");
        LogMsg(QK_LOG_API, QK_LOG_ERROR, "u.cpp", 2, std::thread::id(), "to nowhere");
    }));
    EXPECT_EQ("not a directory\n", ReadFile(Path("plain")));
    EXPECT_FALSE(fs::exists(Path("missing")));
    const std::vector<std::string> out = Lines(Stdout());
    ASSERT_EQ(2u, out.size());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ("\033[1;31m", out[i].substr(0, 7));
        EXPECT_TRUE(HasHead(out[i].substr(7))) << out[i];
        EXPECT_EQ(Tail("to nowhere", "u.cpp", i + 1) + kReset, out[i].substr(7 + kHeadLength));
    }
}

// Without a chosen path the logs are /tmp/qkdll.log and /tmp/qkdll_api.log.
TEST_F(LoggerTest, DefaultLoggerWritesToTmp)
{
    const std::string tmp[] = {Path("tmp0"), Path("tmp1"), Path("tmp2")};
    const std::function<void()> bodies[] = {
        // The first LogMsg makes it; a later creation request changes nothing.
        [] {
            LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "d.cpp", 1, std::thread::id(), "first");
            LoggerSpecialInit(true);
            LogMsg(QK_LOG_MAIN, QK_LOG_ERROR, "d.cpp", 2, std::thread::id(), "second");
        },
        // So does the first LoggerClient: both logs are open and started before any line.
        [] {
            LoggerClient client;
            if (ReadFile("/tmp/qkdll.log") != kBlankStart || ReadFile("/tmp/qkdll_api.log") != kBlankStart)
                std::exit(3);
        },
        // In a read-only /tmp lines are lost but the process runs on.
        [] {
            LoggerClient client;
            for (int i = 0; i < 3; ++i)
                QK_LOG_ERR("lost %d", i);
            if (!GetLoggerRef())
                std::exit(3);
        },
    };
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, mkdir(tmp[i].c_str(), 0700));
        const int status = Run([&] {
            if (!UsePrivateTmp(tmp[i], i < 2))
                std::exit(kSkipExit);
            bodies[i]();
        });
        if (status == kSkipExit)
            GTEST_SKIP() << "no private mount namespace for /tmp";
        ASSERT_EQ(0, status) << "case " << i;
        EXPECT_EQ("", Stdout()) << "case " << i;
    }
    EXPECT_EQ(Timeless(ReadFile(tmp[0] + "/qkdll.log")),
              Expected({{"ERR", {Tail("first", "d.cpp", 1)}}, {"ERR", {Tail("second", "d.cpp", 2)}}}));
    EXPECT_EQ(kBlankStart, ReadFile(tmp[0] + "/qkdll_api.log"));
    EXPECT_EQ(kBlankStart, ReadFile(tmp[1] + "/qkdll.log"));
    EXPECT_EQ(kBlankStart, ReadFile(tmp[1] + "/qkdll_api.log"));
    EXPECT_TRUE(fs::is_empty(tmp[2]));
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

// The last lines that add up to at most 1 MiB, each with its line end.
std::string LastMiB(const std::vector<std::string>& lines)
{
    std::size_t first = lines.size();
    std::size_t total = 0;
    while (first > 0 && total + lines[first - 1].size() <= kKeepBytes)
        total += lines[--first].size();
    EXPECT_GT(first, 0u);
    return Join(lines, first);
}

// Each run keeps what a log holds, trimmed to its last whole lines when their
// bytes (line ends not counted) pass 1 MiB, and adds three blank lines.
TEST_F(LoggerTest, EachRunTrimsLogsToTheirLastMiBAndAddsABlankStart)
{
    const std::vector<std::string> big = MakeLines(3 * kKeepBytes, 7);
    const std::vector<std::string> other = MakeLines(2 * kKeepBytes, 13);
    std::string exact; // 1024 lines of 1024 bytes, no closing line end
    for (int i = 0; i < 1024; ++i)
        exact += (i ? "\n" : "") + std::string(1024, static_cast<char>('A' + i % 26));
    const std::string fits(kKeepBytes, 'y');
    // Pairs of main and API log, before and after a run.
    const std::pair<std::string, std::string> logs[][2] = {
        {{Join(big, 0), LastMiB(big)},
         // Without a closing line end, the last line still counts as a line.
         {Join(other, 0).substr(0, Join(other, 0).size() - 1), LastMiB(other)}},
        // Exactly 1 MiB is left as it is; one byte more and the first line goes.
        {{exact, exact}, {"x\n" + exact + "\n", exact + "\n"}},
        // A last line over 1 MiB empties the log; one of exactly 1 MiB stays alone.
        {{"a\nb\n" + std::string(kKeepBytes + 1, 'z') + "\n", ""}, {"a\n" + fits, fits + "\n"}},
    };
    for (const auto& run : logs) {
        ASSERT_TRUE(WriteFile(Path("main.log"), run[0].first));
        ASSERT_TRUE(WriteFile(Path("api.log"), run[1].first));
        ASSERT_EQ(0, Run([&] { LoggerSpecialInit(false, Path("main.log"), Path("api.log")); }));
        EXPECT_TRUE(SameBytes(ReadFile(Path("main.log")), run[0].second + kBlankStart));
        EXPECT_TRUE(SameBytes(ReadFile(Path("api.log")), run[1].second + kBlankStart));
    }
}

// Threads race to make the logger and log at once: one logger, no line of
// one message between those of another. Each first line shows the local
// time, the text filled to its width, the source and the thread as the
// system numbers it; the console gets each message as one block in the
// colour of its type, without the start-up blanks.
TEST_F(LoggerTest, ThreadsShareOneLoggerAndLinesShowWhenWhereAndWho)
{
    struct Kind {
        int type;
        const char* word;
        const char* colour;
    };
    const Kind kinds[] = {
        {QK_LOG_DEBUG, "DEB", "\033[0;30m"},
        {QK_LOG_INFO, "INF", "\033[1;32m"},
        {QK_LOG_ERROR, "ERR", "\033[1;31m"},
        {3, "DEB", "\033[1;30m"}, // a type of no name
    };
    constexpr int kThreads = 4;
    constexpr int kMessages = 150;
    const std::string before = NowStamp();
    ASSERT_EQ(0, Run([&] {
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                ++ready;
                while (ready < kThreads)
                    std::this_thread::yield();
                // They race to make the logger; one set of paths wins.
                LoggerSpecialInit(true, Path("main" + std::to_string(t)), Path("api" + std::to_string(t)));
                const unsigned long tid = static_cast<unsigned long>(pthread_self());
                for (int m = 0; m < kMessages; ++m)
                    LogMsg(QK_LOG_MAIN, static_cast<QKLogMsgType>(kinds[t].type), "t.cpp", t,
                           std::this_thread::get_id(), "t%d m%d %lu\nt%d m%d b\nt%d m%d c", t, m, tid, t, m, t, m);
            });
        for (std::thread& thread : threads)
            thread.join();
        QK_LOG_INF("macro %d %lu", __LINE__, static_cast<unsigned long>(pthread_self()));
        LogMsg(QK_LOG_API, QK_LOG_INFO, "c.cpp", 5, std::thread::id(), "api");
    }));
    const std::string after = NowStamp();

    int winner = -1;
    for (int t = 0; t < kThreads; ++t)
        if (fs::exists(Path("main" + std::to_string(t)))) {
            EXPECT_EQ(-1, winner) << "second logger made by thread " << t;
            winner = t;
        }
    ASSERT_NE(-1, winner);
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(t == winner, fs::exists(Path("api" + std::to_string(t))));
    const std::string api = ReadFile(Path("api" + std::to_string(winner)));
    ASSERT_EQ(Timeless(api), Expected({{"INF", {Tail("api", "c.cpp", 5)}}}));

    const std::string log = ReadFile(Path("main" + std::to_string(winner)));
    const std::vector<std::string> lines = Lines(log);
    ASSERT_EQ(kBlankStart, log.substr(0, 3));
    ASSERT_EQ(3u + 3u * kThreads * kMessages + 1u, lines.size());
    // A head of the message's type and of a time within the run; fixed-width
    // fields, so text order is time order within a year.
    const auto headOf = [&](const std::string& line, const char* word) {
        const std::string stamp = line.substr(4, kHeadLength - 4);
        EXPECT_TRUE(HasHead(line) && line.compare(0, 3, word) == 0 &&
                    (before > after || (before <= stamp && stamp <= after)))
            << line;
        return line.substr(0, kHeadLength);
    };
    // Each thread's messages in order, with its own number, never split.
    static const std::regex text(" \\| t(\\d) m(\\d+) (\\d+) ");
    std::vector<int> next(kThreads, 0);
    std::vector<std::string> ids(kThreads);
    std::string console;
    for (std::size_t i = 3; i + 1 < lines.size(); i += 3) {
        std::smatch said;
        ASSERT_TRUE(std::regex_search(lines[i], said, text)) << lines[i];
        const int t = std::stoi(said[1]);
        ASSERT_LT(t, kThreads);
        EXPECT_EQ(next[t]++, std::stoi(said[2])) << lines[i];
        if (ids[t].empty())
            ids[t] = said[3];
        const std::string message = "t" + said[1].str() + " m" + said[2].str();
        const std::string head = headOf(lines[i], kinds[t].word);
        const std::string block = lines[i] + "\n" + lines[i + 1] + "\n" + lines[i + 2];
        ASSERT_EQ(block, head + Tail(message + " " + ids[t], "t.cpp", t, ids[t]) + "\n" + head + " | " + message +
                             " b\n" + head + " | " + message + " c");
        console += kinds[t].colour + block + kReset + "\n";
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(kMessages, next[t]);
        for (int u = 0; u < t; ++u)
            EXPECT_NE(ids[u], ids[t]);
    }
    // The macro names this source and line.
    static const std::regex macro(" \\| macro (\\d+) (\\d+) ");
    std::smatch said;
    ASSERT_TRUE(std::regex_search(lines.back(), said, macro)) << lines.back();
    EXPECT_EQ(lines.back(), headOf(lines.back(), "INF") + Tail("macro " + said[1].str() + " " + said[2].str(), __FILE__,
                                                               std::stoi(said[1]), said[2]));
    console += "\033[1;32m" + lines.back() + kReset + "\n\033[1;32m" + Lines(api)[3] + kReset + "\n";
    EXPECT_TRUE(SameBytes(Stdout(), console));
}

} // namespace

// No logging here: each case starts its child without a logger.
int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
