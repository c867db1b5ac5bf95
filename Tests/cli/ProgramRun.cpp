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

ProgramResult runProgram(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
    std::string base = testing::TempDir() + "quorvane_run_" + std::to_string(getpid());
    std::string outPath = base + ".out", errPath = base + ".err";

    std::vector<std::string> argStrings{QV_EXECUTABLE};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e)
        if (std::string(*e).rfind("QV_NEE_", 0) != 0) envStrings.emplace_back(*e);
    for (const auto& [name, value] : env) envStrings.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);

    ProgramResult result;
    if (rc != 0) {
        ADD_FAILURE() << "could not start " << QV_EXECUTABLE;
        return result;
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    if (WIFEXITED(wstatus)) result.status = WEXITSTATUS(wstatus);
    result.out = readAll(outPath);
    result.err = readAll(errPath);
    std::remove(outPath.c_str());
    std::remove(errPath.c_str());
    return result;
}

} // namespace qv::test
