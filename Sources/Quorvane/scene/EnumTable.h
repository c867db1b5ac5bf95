#pragma once
// Every keyword enumeration (options, JSON keys, tone mappers, ...) is one enum
// plus one table of its names, looked up here, so parsing and printing of a
// keyword happen in exactly one place.
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qv {

template <class E>
struct EnumName {
    E value;
    std::string_view name;
};

template <class E, std::size_t N>
constexpr std::optional<E> enumFromName(const std::array<EnumName<E>, N>& table, std::string_view name) {
    for (const auto& entry : table)
        if (entry.name == name) return entry.value;
    return std::nullopt;
}

// The name of a value is its first entry in the table; later entries are aliases.
template <class E, std::size_t N>
constexpr std::string_view enumToName(const std::array<EnumName<E>, N>& table, E value) {
    for (const auto& entry : table)
        if (entry.value == value) return entry.name;
    return {};
}

} // namespace qv
