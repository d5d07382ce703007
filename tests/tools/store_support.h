// Many msmface processes on one dictionary directory at once: starting them without waiting,
// killing them, and reading what they left.
#ifndef MSMFACE_TESTS_TOOLS_STORE_SUPPORT_H
#define MSMFACE_TESTS_TOOLS_STORE_SUPPORT_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <msmface/store.h>

#include "cli_support.h"
#include "store/registry.h"
#include "store/store_lock.h"

namespace storetest {

using Clock = std::chrono::steady_clock;

// A started msmface process; its output goes to files in a folder of the test.
struct Launched {
    pid_t pid = -1;
    std::string outPath, errPath;
    Clock::time_point start;
};

// Starts the program with these arguments (no shell involved); before exec, prepare runs in the
// child (limits, signals).
template <class Prepare>
Launched Launch(const std::vector<std::string>& args, const std::string& logStem, Prepare prepare) {
    Launched l;
    l.outPath = logStem + ".out";
    l.errPath = logStem + ".err";
    l.start = Clock::now();
    l.pid = ::fork();
    if (l.pid == 0) {
        const int out = ::open(l.outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(l.errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out >= 0) ::dup2(out, 1);
        if (err >= 0) ::dup2(err, 2);
        prepare();
        std::vector<char*> argv;
        static std::string program = MSMFACE_CLI_PATH;
        argv.push_back(program.data());
        std::vector<std::string> copy = args;
        for (std::string& a : copy) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    return l;
}

inline Launched Launch(const std::vector<std::string>& args, const std::string& logStem) {
    return Launch(args, logStem, [] {});
}

struct Finished {
    int status = -1;     // exit code, or -signal
    double seconds = 0;  // from launch to exit
    std::string out, err;
};

inline Finished Wait(const Launched& l) {
    Finished f;
    int status = 0;
    ::waitpid(l.pid, &status, 0);
    f.seconds = std::chrono::duration<double>(Clock::now() - l.start).count();
    f.status = WIFEXITED(status)     ? WEXITSTATUS(status)
               : WIFSIGNALED(status) ? -WTERMSIG(status)
                                     : -1;
    f.out = clitest::ReadText(l.outPath);
    f.err = clitest::ReadText(l.errPath);
    return f;
}

// The registry's ID numbers; fails the test when it does not read.
inline std::set<int> ListedIds(const std::string& dir) {
    std::vector<msmface::Person> listed;
    const std::string error = msmface::detail::loadRegistry(dir, listed);
    EXPECT_EQ(error, "");
    std::set<int> ids;
    for (const auto& p : listed) ids.insert(p.id);
    return ids;
}

// check's problems as lines, for failure messages.
inline std::string Lines(const msmface::StoreReport& r) {
    std::string text;
    for (const auto& p : r.problems) text += "  " + p.message + "\n";
    return text;
}

// The name of the person whose file path is, or empty.
inline std::string StemOf(const std::string& path) {
    const std::string file = path.substr(path.find_last_of('/') + 1);
    const std::size_t dot = file.find('.');
    return dot == std::string::npos ? file : file.substr(0, dot);
}

}  // namespace storetest

#endif  // MSMFACE_TESTS_TOOLS_STORE_SUPPORT_H
