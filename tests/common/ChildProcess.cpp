// SPDX-License-Identifier: MIT
#include "tests/common/ChildProcess.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/common/TestLog.h"

namespace qktest {

namespace {

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

ChildRun RunChild(const std::vector<std::string>& argv, bool alone)
{
    const std::string outPath = TempDir() + "/child.out";
    const std::string errPath = TempDir() + "/child.err";
    ChildRun run;
    pid_t pid = fork();
    if (pid == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        if (alone) {
            unsetenv("LD_PRELOAD");
            unsetenv("UMOCKDEV_DIR");
        }
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = Slurp(outPath);
    run.err = Slurp(errPath);
    return run;
}

} // namespace qktest
