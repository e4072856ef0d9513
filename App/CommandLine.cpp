#include "App/CommandLine.hpp"

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>
#include <string_view>
#include <utility>

#include "App/Suggestion.hpp"
#include "App/UsageError.hpp"

namespace quillmere::app {

Option& Option::typeName(const std::string& text) {
    option_->type_name(text);
    return *this;
}

Option& Option::defaultText(const std::string& text) {
    option_->default_str(text);
    return *this;
}

Option& Option::required() {
    option_->required();
    return *this;
}

Option& Option::excludes(const Option& other) {
    option_->excludes(other.option_);
    return *this;
}

Option& Option::oneAtATime() {
    option_->allow_extra_args(false);
    return *this;
}

Option& Option::check(std::function<std::string(const std::string&)> check) {
    option_->check(std::move(check));
    return *this;
}

Option& Option::transform(std::function<std::string(std::string&)> check, const std::string& description) {
    option_->transform(CLI::Validator(std::move(check), description));
    return *this;
}

Option& Option::between(int least, int most) {
    option_->check(CLI::Range(least, most));
    return *this;
}

Option& Option::notNegative() {
    option_->check(CLI::NonNegativeNumber);
    return *this;
}

bool Option::isGiven() const { return option_->count() > 0; }

Verb Verb::addVerb(const std::string& name, const std::string& help) { return Verb(*app_->add_subcommand(name, help)); }

void Verb::footer(const std::string& text) { app_->footer(text); }

void Verb::requireVerbs(std::size_t least, std::size_t most) { app_->require_subcommand(least, most); }

bool Verb::isVerbGiven() const { return !app_->get_subcommands().empty(); }

void Verb::callback(std::function<void()> run) { app_->callback(std::move(run)); }

Option Verb::addFlag(const std::string& name, bool& value, const std::string& help) {
    return Option(*app_->add_flag(name, value, help));
}

Option Verb::addOption(const std::string& name, std::string& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addOption(const std::string& name, std::optional<std::string>& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addOption(const std::string& name, std::vector<std::string>& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addOption(const std::string& name, std::int64_t& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addOption(const std::string& name, std::optional<std::int64_t>& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addOption(const std::string& name, double& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addOption(const std::string& name, std::optional<double>& value, const std::string& help) {
    return Option(*app_->add_option(name, value, help));
}

Option Verb::addCase(const std::string& name, std::function<void(int)> take, const std::string& help) {
    // The texts have been through the choice by then.
    const auto read = [take = std::move(take)](const CLI::results_t& texts) {
        take(std::stoi(texts.front()));
        return true;
    };
    return Option(*app_->add_option(name, read, help)->type_name("ENUM"));
}

CommandLine::CommandLine(const std::string& program, const std::string& help, const std::string& version)
    : app_(std::make_unique<CLI::App>(help, program)) {
    app_->set_version_flag("--version", version);
}

CommandLine::~CommandLine() = default;

Verb CommandLine::program() { return Verb(*app_); }

std::optional<std::string> CommandLine::run(int argumentCount, char** arguments) {
    // Nothing where the error is the wish for help or for the version, which is then printed.
    const auto complaint = [&](const CLI::ParseError& error) -> std::optional<std::string> {
        std::ostringstream text;
        if (app_->exit(error, std::cout, text) == 0) return std::nullopt;
        return text.str();
    };
    try {
        app_->parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return complaint(error);
    } catch (const UsageError& error) {
        const std::string blamed = error.option().empty() ? "" : error.option() + ": ";
        return complaint(CLI::ValidationError(blamed + error.what()));
    }
    return std::nullopt;
}

std::optional<std::string> CommandLine::probablyMeant(int argumentCount, char** arguments) const {
    CLI::App* verb = app_.get();
    for (int i = 1; i < argumentCount; ++i) {
        const std::string_view word = arguments[i];
        std::vector<std::string> names;
        if (word.starts_with("--")) {
            const std::string name(word.substr(0, word.find('=')));
            const auto* option = verb->get_option_no_throw(name);
            if (option == nullptr) {
                for (const auto* known : verb->get_options()) {
                    for (const auto& each : known->get_lnames()) names.push_back("--" + each);
                }
                return suggestion(name, names);
            }
            const bool hasValueNext = name.size() == word.size() && option->get_items_expected_max() > 0;
            if (hasValueNext) ++i;
            continue;
        }
        CLI::App* named = nullptr;
        for (CLI::App* below : verb->get_subcommands([](const CLI::App*) { return true; })) {
            names.push_back(below->get_name());
            if (names.back() == word) named = below;
        }
        if (names.empty()) continue;  // a word of the verb's own
        if (named == nullptr) return suggestion(word, names);
        verb = named;
    }
    return std::nullopt;
}

}  // namespace quillmere::app
