/// Options of a server from the command line and from a file. Needs the headers of CLI11 (Debian:
/// libcli11-dev).
#ifndef WENDREL_KIT_CONFIGURATION_H
#define WENDREL_KIT_CONFIGURATION_H

#include <Wendrel/kit/ServerSettings.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace qv::kit
{

/// Adds to `app` an option for each field of `options` that is a value, and `--config FILE` for a
/// file with any options of `app`, those of the application included: see
/// docs/configuration.md. Options of the command line override those of the file, `--port` and
/// `--all-interfaces` also its `listen`, and the other way round. Present values are the defaults.
/// A value that `Server::start` would refuse, an unknown option in the file and a file that cannot
/// be read are errors of `CLI::App::parse`, which name option, file and line.
///
/// `options` outlives `app`, or its last `parse`: `addServerOptions(app, server.options())`.
void addServerOptions(CLI::App& app, ServerOptions& options);

/// An option of the application whose value is a size: "512", "64K", "10M", "2G" or "1T", of 1024
/// each, with "B" or "iB" behind it or not. Its default is the present value of `bytes`.
CLI::Option* addSizeOption(CLI::App& app, const std::string& name, uint64_t& bytes,
                           const std::string& help);

/// An option of the application whose value is a duration: "0", "250ms", "30s", "5m", "12h" or
/// "7d". Its default is the present value of `duration`.
CLI::Option* addDurationOption(CLI::App& app, const std::string& name,
                               std::chrono::milliseconds& duration, const std::string& help);

namespace impl
{

/// A file of options whose errors have a line.
class LocatedConfig : public CLI::ConfigTOML
{
public:
    /// Options of which the command line has one replace the other one of a file.
    using Pairs = std::vector<std::pair<std::string, std::string>>;

    /// `app` outlives this.
    LocatedConfig(CLI::App& app, Pairs pairs) : mOptions(app), mPairs(std::move(pairs)) {}

    /// Stores the options of the application; returns those of its subcommands.
    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override
    {
        const std::string text{std::istreambuf_iterator<char>(input), {}};
        std::istringstream lines(text);
        std::vector<CLI::ConfigItem> others;
        std::set<std::string> taken;
        const std::set<std::string> replaced = replacedOptions();
        std::string unknown;  // section
        for (CLI::ConfigItem& item : CLI::ConfigTOML::from_config(lines)) {
            const bool isSection = item.name == "++" || item.name == "--";
            if (item.parents.empty())
                take(item, text, taken.insert(item.name).second, replaced);
            else if (hasOption(item, isSection))
                others.push_back(std::move(item));
            else if (!isSection)
                fail(text, item.fullname(), "there is no option '" + item.fullname() + "'");
            else
                unknown = CLI::detail::join(item.parents, ".");
        }
        if (!unknown.empty())
            fail(text, unknown, "there is no section '" + unknown + "'");
        return others;
    }

private:
    // By the command line.
    std::set<std::string> replacedOptions() const
    {
        std::set<std::string> replaced;
        for (const CLI::Option* const option : mOptions.get_options()) {
            if (!option->empty())
                replaced.insert(option->get_name());
        }
        for (const auto& [name, other] : mPairs) {
            if (!mOptions.get_option(name)->empty())
                replaced.insert(other);
            if (!mOptions.get_option(other)->empty())
                replaced.insert(name);
        }
        return replaced;
    }

    [[noreturn]] void fail(const std::string& text, const std::string& key,
                           const std::string& why) const
    {
        throw CLI::ConfigError(mOptions.get_config_ptr()->as<std::string>() + ", line " +
                               std::to_string(lineOfKey(text, key)) + ": " + why);
    }

    // Whether the application has the subcommand, and the subcommand the option.
    bool hasOption(const CLI::ConfigItem& item, bool isSection) const
    {
        CLI::App* owner = &mOptions;
        try {
            for (const std::string& name : item.parents)
                owner = owner->get_subcommand(name);
        } catch (const CLI::OptionNotFound&) {
            return false;
        }
        return isSection || owner->get_option_no_throw("--" + item.name) ||
               (item.name.size() == 1 && owner->get_option_no_throw("-" + item.name)) ||
               owner->get_option_no_throw(item.name);
    }

    void take(const CLI::ConfigItem& item, const std::string& text, bool isFirst,
              const std::set<std::string>& replaced) const
    {
        CLI::Option* const option = mOptions.get_option_no_throw("--" + item.name);
        try {
            if (!option || !option->get_configurable())
                throw CLI::ConfigError("there is no option '" + item.name + "'");
            if (!isFirst)
                throw CLI::ConfigError("'" + item.name + "' stands in the file twice");
            if (replaced.count(option->get_name()) != 0)
                return;
            if (option->get_expected_min() == 0) {
                option->add_result(option->get_flag_value(item.name, to_flag(item)));
            } else {
                option->add_result(item.inputs);
                option->run_callback();
            }
        } catch (const CLI::ParseError& error) {
            fail(text, item.name, error.what());
        }
    }

    CLI::App& mOptions;
    const Pairs mPairs;
};

}  // namespace impl

inline void addServerOptions(CLI::App& app, ServerOptions& options)
{
    std::map<std::string, std::string> needed;
    impl::LocatedConfig::Pairs pairs;
    for (ServerSetting& setting : serverSettings(options)) {
        const auto store = [name = setting.name,
                            set = setting.set](const std::vector<std::string>& values) {
            if (const std::string why = set(values); !why.empty())
                throw CLI::ValidationError(name, why);
        };
        CLI::Option* option = nullptr;
        if (setting.value.empty())
            option = app.add_flag_function(
                setting.name, [store](int64_t count) { store({count > 0 ? "true" : "false"}); },
                setting.help);
        else
            option =
                app.add_option_function<std::vector<std::string>>(setting.name, store, setting.help)
                    ->expected(1, setting.isList ? CLI::detail::expected_max_vector_size : 1)
                    ->allow_extra_args(false)
                    ->option_text(setting.value +
                                  (setting.fallback.empty() ? "" : "=" + setting.fallback));
        option->group(setting.group);
        if (!setting.needed.empty())
            needed[setting.name] = setting.needed;
        if (!setting.excluded.empty())
            pairs.emplace_back(setting.name, setting.excluded);
    }
    for (const auto& [name, other] : needed)
        app.get_option(name)->needs(app.get_option(other));
    app.get_formatter()->column_width(42);
    app.config_formatter(std::make_shared<impl::LocatedConfig>(app, std::move(pairs)));
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.set_config("--config", "", "Read further options from this file (TOML or INI)")
        ->option_text("FILE");
}

inline CLI::Option* addSizeOption(CLI::App& app, const std::string& name, uint64_t& bytes,
                                  const std::string& help)
{
    const auto store = [name, &bytes](const std::string& text) {
        if (const std::string why = readSize(text, bytes); !why.empty())
            throw CLI::ValidationError(name, why);
    };
    return app.add_option_function<std::string>(name, store, help)
        ->type_name("SIZE")
        ->default_str(sizeText(bytes));
}

inline CLI::Option* addDurationOption(CLI::App& app, const std::string& name,
                                      std::chrono::milliseconds& duration, const std::string& help)
{
    const auto store = [name, &duration](const std::string& text) {
        if (const std::string why = readDuration(text, duration); !why.empty())
            throw CLI::ValidationError(name, why);
    };
    return app.add_option_function<std::string>(name, store, help)
        ->type_name("DURATION")
        ->default_str(durationText(duration));
}

}  // namespace qv::kit

#endif
