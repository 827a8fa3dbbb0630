#pragma once

// An option that takes one word of a fixed set (case does not matter), with
// the set in its help and in its error message.

#include <CLI/CLI.hpp>

#include <cctype>
#include <string>
#include <utility>
#include <vector>

namespace weftcli
{

template <typename T>
CLI::Option* addChoice(CLI::App& app, const std::string& flags, T& target,
                       const std::vector<std::pair<std::string, T>>& choices,
                       const std::string& help)
{
    std::string names;
    for (const auto& choice : choices)
    {
        names += (names.empty() ? "" : "|") + choice.first;
    }
    const auto find = [choices](std::string word)
    {
        for (char& c : word)
        {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        for (const auto& choice : choices)
        {
            if (choice.first == word)
            {
                return &choice - choices.data();
            }
        }
        return static_cast<std::ptrdiff_t>(-1);
    };
    return app
        .add_option_function<std::string>(
            flags,
            [&target, choices, find](const std::string& word)
            { target = choices[static_cast<std::size_t>(find(word))].second; },
            help)
        ->check(CLI::Validator(
            [find, names](std::string& word)
            { return find(word) < 0 ? "'" + word + "' is not one of " + names : std::string(); },
            ""))
        ->type_name(names);
}

} // namespace weftcli
