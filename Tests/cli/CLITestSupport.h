#pragma once
#include "cli/CLIOptions.h"
#include "scene/EnvSwitches.h"

#include <map>
#include <string>
#include <vector>

namespace qv::test {

using Args = std::vector<std::string>;
using Env = std::map<std::string, std::string>;

// Parses with a fixed environment instead of the process's.
inline CLIOptions parseArgs(const Args& args, const Env& env = {}) {
    return CLIOptions::parse(args, EnvSwitches::fromMap(env));
}

// The parse error's whole message, or a marker when the parse succeeds.
inline std::string parseError(const Args& args, const Env& env = {}) {
    try {
        parseArgs(args, env);
    } catch (const CLIError& error) {
        return error.what();
    } catch (const HelpRequested&) {
        return "<help>";
    }
    return "<parsed>";
}

inline std::string joined(const Args& args) {
    std::string out;
    for (const auto& a : args) out += (out.empty() ? "" : " ") + a;
    return out;
}

} // namespace qv::test
