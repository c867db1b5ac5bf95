#include "ProgramRun.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qv::test {

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace

namespace {

struct Started {
    pid_t pid = -1;
    std::string outPath, errPath;
};

Started start(const ProgramCall& call, std::size_t index) {
    Started s;
    std::string base = testing::TempDir() + "quorvane_run_" + std::to_string(getpid()) + "_" + std::to_string(index);
    s.outPath = base + ".out";
    s.errPath = base + ".err";

    std::vector<std::string> argStrings{QV_EXECUTABLE};
    argStrings.insert(argStrings.end(), call.args.begin(), call.args.end());
    std::vector<char*> argv;
    for (auto& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e)
        if (std::string(*e).rfind("QV_NEE_", 0) != 0) envStrings.emplace_back(*e);
    for (const auto& [name, value] : call.env) envStrings.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, s.outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, s.errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0) s.pid = pid;
    else ADD_FAILURE() << "could not start " << QV_EXECUTABLE;
    posix_spawn_file_actions_destroy(&actions);
    return s;
}

ProgramResult finish(const Started& s) {
    ProgramResult result;
    if (s.pid < 0) return result;
    int wstatus = 0;
    waitpid(s.pid, &wstatus, 0);
    if (WIFEXITED(wstatus)) result.status = WEXITSTATUS(wstatus);
    result.out = readAll(s.outPath);
    result.err = readAll(s.errPath);
    std::remove(s.outPath.c_str());
    std::remove(s.errPath.c_str());
    return result;
}

} // namespace

std::vector<ProgramResult> runPrograms(const std::vector<ProgramCall>& calls) {
    std::vector<Started> started;
    for (std::size_t i = 0; i < calls.size(); ++i) started.push_back(start(calls[i], i));
    std::vector<ProgramResult> results;
    for (const auto& s : started) results.push_back(finish(s));
    return results;
}

ProgramResult runProgram(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
    return runPrograms({ProgramCall{args, env}}).front();
}

} // namespace qv::test
