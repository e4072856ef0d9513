#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "App/Host.hpp"
#include "App/Suggestion.hpp"
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

// Where the command line names a verb, or a part of one, that there is not: the one that was probably meant.
void suggestVerb(CLI::App& app, int argumentCount, char** arguments) {
    CLI::App* verb = &app;
    for (int i = 1; i < argumentCount; ++i) {
        const std::string_view word = arguments[i];
        if (word.starts_with('-')) continue;
        std::vector<std::string> names;
        CLI::App* named = nullptr;
        for (CLI::App* part : verb->get_subcommands([](const CLI::App*) { return true; })) {
            names.push_back(part->get_name());
            if (names.back() == word) named = part;
        }
        if (named == nullptr) {
            if (const auto near = quillmere::app::suggestion(word, names)) {
                std::fprintf(stderr, "Did you mean \"%s\"?\n", near->c_str());
            }
            return;
        }
        verb = named;
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

    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        if (app.exit(error) == 0) return 0;
        suggestVerb(app, argumentCount, arguments);
        return static_cast<int>(ExitCode::usage);
    } catch (const quillmere::LibraryInUse& error) {
        host.fail(ExitCode::libraryInUse, error.what());
    } catch (const std::exception& error) {
        host.fail(ExitCode::failure, error.what());
    }
    if ((std::fflush(stdout) != 0 || std::ferror(stdout) != 0) && host.exitCode == ExitCode::success) {
        host.fail(ExitCode::failure, "Standard output could not be written.");
    }
    return static_cast<int>(host.exitCode);
}

}  // namespace

int main(int argumentCount, char** arguments) {
    // A closed pipe is an ordinary write error here, never the death of the process.
    std::signal(SIGPIPE, SIG_IGN);
    return run(argumentCount, arguments);
}
