#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace quillmere::app {

/// An option, a flag or an argument of a verb: a handle, valid as long as its `CommandLine`.
class Option {
public:
    /// What the help shows in place of a value, "FILE".
    Option& typeName(const std::string& text);

    /// What the help shows as the default. The default itself is what the variable holds.
    Option& defaultText(const std::string& text);

    /// The verb does not run without it.
    Option& required();

    /// It cannot be given together with `other`.
    Option& excludes(const Option& other);

    /// Takes one value each time it is named, not all that follow.
    Option& oneAtATime();

    /// Takes only values for which `check` returns an empty text: else what is wrong with the value.
    Option& check(std::function<std::string(const std::string&)> check);

    /// The same for a check that may put another text in the value's place. The help shows `description` of it.
    Option& transform(std::function<std::string(std::string&)> check, const std::string& description);

    /// Takes only numbers from `least` to `most`.
    Option& between(int least, int most);

    /// Takes only numbers from zero on.
    Option& notNegative();

    /// Whether the command line that was read has it.
    [[nodiscard]] bool isGiven() const;

private:
    friend class Verb;
    explicit Option(CLI::Option& option) : option_(&option) {}

    CLI::Option* option_;
};

/// A verb of the command line, a part of one, or the whole program: a handle, valid as long as its `CommandLine`.
class Verb {
public:
    /// Adds a verb below this one. `help` says in a line what it does.
    [[nodiscard]] Verb addVerb(const std::string& name, const std::string& help);

    /// What the help ends with.
    void footer(const std::string& text);

    /// How many of the verbs below this one a command line may name.
    void requireVerbs(std::size_t least, std::size_t most);

    /// Whether the command line that was read names a verb below this one.
    [[nodiscard]] bool isVerbGiven() const;

    /// What happens when a command line that names the verb has been read without complaint.
    void callback(std::function<void()> run);

    /// Adds a flag ("--force") that sets `value`, which must be there as long as the command line is.
    Option addFlag(const std::string& name, bool& value, const std::string& help);

    /// Adds an option ("--mood") or, by a name without dashes, an argument. What is given for it is put into `value`,
    /// which must be there as long as the command line is; a vector takes any number of values.
    Option addOption(const std::string& name, std::string& value, const std::string& help);
    Option addOption(const std::string& name, std::optional<std::string>& value, const std::string& help);
    Option addOption(const std::string& name, std::vector<std::string>& value, const std::string& help);
    Option addOption(const std::string& name, std::int64_t& value, const std::string& help);
    Option addOption(const std::string& name, std::optional<std::int64_t>& value, const std::string& help);
    Option addOption(const std::string& name, double& value, const std::string& help);
    Option addOption(const std::string& name, std::optional<double>& value, const std::string& help);

    /// The same for a case of an enumeration, whose names a `Choice` turns into numbers.
    template <class E>
    requires std::is_enum_v<E> Option addOption(const std::string& name, E& value, const std::string& help) {
        return addCase(
            name, [&value](int number) { value = static_cast<E>(number); }, help);
    }
    template <class E>
    requires std::is_enum_v<E> Option addOption(const std::string& name, std::optional<E>& value,
                                                const std::string& help) {
        return addCase(
            name, [&value](int number) { value = static_cast<E>(number); }, help);
    }

private:
    friend class CommandLine;
    explicit Verb(CLI::App& app) : app_(&app) {}

    Option addCase(const std::string& name, std::function<void(int)> take, const std::string& help);

    CLI::App* app_;
};

/// The command line of a program: its verbs, and what reads the arguments. The one place that knows the library behind
/// it, which takes seconds to compile.
///
/// Thread-safe: no.
class CommandLine {
public:
    /// `help` says in a line what the program does; `version` is what --version prints.
    CommandLine(const std::string& program, const std::string& help, const std::string& version);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// The program itself, below which the verbs are.
    [[nodiscard]] Verb program();

    /// Reads the arguments and runs the verb that they name, or prints the help or the version that they ask for.
    /// Returns what is wrong with a command line that cannot be understood, or of which a verb says so by `UsageError`:
    /// lines that may repeat the arguments. Throws what else the verb throws.
    [[nodiscard]] std::optional<std::string> run(int argumentCount, char** arguments);

    /// Where the arguments name a verb or an option that there is not: the one that was probably meant.
    [[nodiscard]] std::optional<std::string> probablyMeant(int argumentCount, char** arguments) const;

private:
    std::unique_ptr<CLI::App> app_;
};

}  // namespace quillmere::app
