#pragma once
// The QV_ environment switches for QA and tuning. Each variable is read from
// the environment once, the first time anything asks for it, and kept; a value
// of the wrong form reads as absent, so the caller's default stays in force.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv {

class EnvSwitches {
public:
    // Returns the variable's text, or nothing when it is not set.
    using Lookup = std::function<std::optional<std::string>(const std::string& name)>;

    explicit EnvSwitches(Lookup lookup);

    // A fixed set of variables, for tests and tools that must not see the process environment.
    static EnvSwitches fromMap(std::map<std::string, std::string> values);

    // The switches of this process, read from its environment.
    static const EnvSwitches& process();

    // The variable's text as first read, or nothing when unset.
    std::optional<std::string> text(std::string_view name) const;

    // True only when the variable is exactly "1".
    bool isOn(std::string_view name) const;

    // A finite number in C-locale notation filling the whole value.
    std::optional<double> number(std::string_view name) const;
    double number(std::string_view name, double fallback) const;

    // A base-10 signed integer filling the whole value.
    std::optional<int64_t> integer(std::string_view name) const;
    int64_t integer(std::string_view name, int64_t fallback) const;

    // Exactly `count` finite numbers separated by commas ("0.5,2" or "1, 2, 3").
    std::optional<std::vector<double>> numbers(std::string_view name, std::size_t count) const;

    // The finite numbers of a comma-separated list, or nothing when any item
    // is empty or not a finite number: the one reader of numeric lists.
    static std::optional<std::vector<double>> parseNumberList(std::string_view text);

    // The pair "a,b".
    std::optional<std::pair<double, double>> pair(std::string_view name) const;
    std::pair<double, double> pair(std::string_view name, std::pair<double, double> fallback) const;

private:
    struct Cache {
        std::mutex mutex;
        std::map<std::string, std::optional<std::string>, std::less<>> values;
    };
    Lookup lookup_;
    std::shared_ptr<Cache> cache_;
};

} // namespace qv
