#pragma once

// Options that take a port, a time or a percentage: each checked by the one
// parser of its kind, so that every wrong one gets the same kind of message.
// And -4/-6, with the host look-up they steer.

#include "HostLookup.h"
#include "ValueSyntax.h"

#include <tavo/HostAddress.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <string>

namespace weftcli
{

template <typename Parse>
CLI::Validator parsedBy(Parse parse)
{
    return CLI::Validator(
        [parse](std::string& text)
        {
            std::string error;
            parse(text, error);
            return error;
        },
        "");
}

inline CLI::Option* addPortOption(CLI::App& app, const std::string& flags, unsigned short& port,
                                  const std::string& help)
{
    const auto parse = [](const std::string& text, std::string& error)
    {
        unsigned short ignored = 0;
        return parsePort(text, true, ignored, error);
    };
    return app
        .add_option_function<std::string>(
            flags,
            [&port](const std::string& text)
            {
                std::string error;
                parsePort(text, true, port, error);
            },
            help)
        ->check(parsedBy(parse))
        ->type_name("PORT");
}

inline CLI::Option* addTimeOption(CLI::App& app, const std::string& flags,
                                  std::chrono::microseconds& time, bool allowZero,
                                  const std::string& help)
{
    const auto parse = [allowZero](const std::string& text, std::string& error)
    {
        std::chrono::microseconds ignored{0};
        return parseDuration(text, allowZero, ignored, error);
    };
    return app
        .add_option_function<std::string>(
            flags,
            [&time, allowZero](const std::string& text)
            {
                std::string error;
                parseDuration(text, allowZero, time, error);
            },
            help)
        ->check(parsedBy(parse))
        ->type_name("TIME");
}

inline CLI::Option* addPercentOption(CLI::App& app, const std::string& flags, double& rate,
                                     const std::string& help)
{
    const auto parse = [](const std::string& text, std::string& error)
    {
        double ignored = 0;
        return parsePercent(text, ignored, error);
    };
    return app
        .add_option_function<std::string>(
            flags,
            [&rate](const std::string& text)
            {
                std::string error;
                parsePercent(text, rate, error);
            },
            help)
        ->check(parsedBy(parse))
        ->type_name("N%");
}

// -4 and -6: IPv4 only or IPv6 only. Host names resolve to that family
// alone, addresses of the other are refused, and with -6 a listener on ::
// takes no IPv4 clients.
inline void addFamilyFlags(CLI::App& app, tavo::EAddressFamily& family)
{
    CLI::Option* v4 = app.add_flag_callback(
        "-4,--ipv4", [&family] { family = tavo::ADDRESS_FAMILY_IPV4; },
        "IPv4 only: names resolve to IPv4 addresses (as they do by default when they have one)");
    CLI::Option* v6 = app.add_flag_callback(
        "-6,--ipv6", [&family] { family = tavo::ADDRESS_FAMILY_IPV6; },
        "IPv6 only: names resolve to IPv6 addresses, and a listener on :: takes no IPv4 "
        "clients");
    v4->excludes(v6);
}

inline CLI::Option* addTimestampsFlag(CLI::App& app, bool& timestamps)
{
    return app.add_flag("--timestamps", timestamps,
                        "start each line with the event's local time (HH:MM:SS.micros); JSON "
                        "always has \"time\", in seconds since 1970");
}

} // namespace weftcli
