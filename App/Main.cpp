#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "App/Host.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"

namespace {

using quillmere::app::ExitCode;
using quillmere::app::Host;

constexpr const char* footer =
    "Exit status: 0 done, 1 failed, 2 wrong command line, 3 damage found, 4 library in use,\n"
    "5 done but not saved, 130 interrupted.\n\n"
    "Example: quillmere generate --mood designflow --blend 1 --count 3";

// Where the command line names a verb, a part of one or an option that there is not: the one that was probably meant.
void suggestName(CLI::App& app, int argumentCount, char** arguments) {
    const auto suggest = [](std::string_view word, const std::vector<std::string>& names) {
        const auto near = quillmere::app::suggestion(word, names);
        if (near) std::fprintf(stderr, "Did you mean \"%s\"?\n", near->c_str());
    };
    CLI::App* verb = &app;
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
                return suggest(name, names);
            }
            const bool hasValueNext = name.size() == word.size() && option->get_items_expected_max() > 0;
            if (hasValueNext) ++i;
            continue;
        }
        CLI::App* named = nullptr;
        for (CLI::App* part : verb->get_subcommands([](const CLI::App*) { return true; })) {
            names.push_back(part->get_name());
            if (names.back() == word) named = part;
        }
        if (names.empty()) continue;  // a word of the verb's own
        if (named == nullptr) return suggest(word, names);
        verb = named;
    }
}

// What the command line library says repeats the words it was given, and those may be the names of strangers' files.
void printSafely(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::fprintf(stderr, "%s\n", quillmere::app::safeForTerminal(line).c_str());
    }
}

// Where the standard streams were closed, the files that the program opens would get their numbers, and its messages
// would be written into the library. Such a stream becomes one that cannot be written.
void occupyStandardStreams() {
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
        const bool isClosed = fcntl(number, F_GETFD) == -1;
        if (isClosed && open("/dev/null", O_RDONLY) != number) std::abort();
    }
}

int run(int argumentCount, char** arguments) {
    CLI::App app("Endless, unobtrusive background music, generated on your own computer.", "quillmere");
    app.footer(footer);
    app.require_subcommand(1);
    app.set_version_flag("--version", "quillmere " QUILLMERE_VERSION);

    Host host;
    quillmere::app::addMoodsVerb(app, host);
    quillmere::app::addGenerateVerb(app, host);
    quillmere::app::addEnginesVerb(app, host);
    quillmere::app::addLibraryVerb(app, host);
    quillmere::app::addScheduleVerb(app, host);
    quillmere::app::addSettingsVerb(app, host);
    quillmere::app::addStatusVerb(app, host);
    quillmere::app::addPlayVerb(app, host);
    quillmere::app::addRadioVerb(app, host);
    quillmere::app::addRecipeVerb(app, host);
    quillmere::app::addVaultVerb(app, host);
    quillmere::app::addPersonasVerb(app, host);
    quillmere::app::addTagsVerb(app, host);
    quillmere::app::addDigestVerb(app, host);

    // Whether it was one, not the wish for help or for the version.
    const auto isComplaint = [&](const CLI::ParseError& error) {
        std::ostringstream complaint;
        if (app.exit(error, std::cout, complaint) == 0) return false;
        printSafely(complaint.str());
        suggestName(app, argumentCount, arguments);
        return true;
    };
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        if (isComplaint(error)) return static_cast<int>(ExitCode::usage);
    } catch (const quillmere::app::UsageError& error) {
        isComplaint(CLI::ValidationError(error.option(), error.what()));
        return static_cast<int>(ExitCode::usage);
    } catch (const quillmere::LibraryInUse& error) {
        host.fail(ExitCode::libraryInUse, error.what());
    } catch (const std::exception& error) {
        host.fail(ExitCode::failure, error.what());
    }
    std::cout.flush();
    if ((!std::cout || std::fflush(stdout) != 0 || std::ferror(stdout) != 0) && host.exitCode == ExitCode::success) {
        host.fail(ExitCode::failure, "Standard output could not be written.");
    }
    return static_cast<int>(host.exitCode);
}

}  // namespace

int main(int argumentCount, char** arguments) {
    occupyStandardStreams();
    // A closed pipe is an ordinary write error here, never the death of the process.
    std::signal(SIGPIPE, SIG_IGN);
    return run(argumentCount, arguments);
}
