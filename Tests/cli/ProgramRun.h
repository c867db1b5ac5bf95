#pragma once
// Runs the built quorvane program with given arguments and QV_ switches and
// collects its standard output, standard error and exit status.
#include <map>
#include <string>
#include <vector>

namespace qv::test {

struct ProgramResult {
    int status = -1; // exit status; -1 when it did not exit normally
    std::string out;
    std::string err;
};

struct ProgramCall {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
};

// The program runs with the test's environment, less every QV_NEE_ switch,
// plus `env`.
ProgramResult runProgram(const std::vector<std::string>& args, const std::map<std::string, std::string>& env = {});

// Many runs at once (they mostly wait on process start-up), results in call order.
std::vector<ProgramResult> runPrograms(const std::vector<ProgramCall>& calls);

} // namespace qv::test
