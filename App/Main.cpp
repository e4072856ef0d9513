#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Terminal.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"

namespace {

using quillmere::app::CommandLine;
using quillmere::app::ExitCode;
using quillmere::app::Host;
using quillmere::app::Verb;

constexpr const char* footer =
    "Exit status: 0 done, 1 failed, 2 wrong command line, 3 damage found, 4 library in use,\n"
    "5 done but not saved, 130 interrupted.\n\n"
    "Example: quillmere generate --mood designflow --blend 1 --count 3";

// A complaint repeats the words of the command line, and those may be the names of strangers' files.
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

// The system usually gives memory 128 KiB at a time; for a library of thousands of pieces, which are many small blocks,
// that takes a tenth longer. What is not used takes no memory. Blocks of more than 128 KiB are mapped by themselves
// then, each time anew; none is wanted often.
void askForMemoryAtOnce() {
    constexpr int atOnce = 16 << 20;
    static_cast<void>(mallopt(M_TOP_PAD, atOnce));
}

int run(int argumentCount, char** arguments) {
    CommandLine commandLine("quillmere", "Endless, unobtrusive background music, generated on your own computer.",
                            "quillmere " QUILLMERE_VERSION);
    Verb program = commandLine.program();
    program.footer(footer);
    program.requireVerbs(1, 1);

    Host host;
    quillmere::app::addMoodsVerb(program, host);
    quillmere::app::addGenerateVerb(program, host);
    quillmere::app::addEnginesVerb(program, host);
    quillmere::app::addLibraryVerb(program, host);
    quillmere::app::addScheduleVerb(program, host);
    quillmere::app::addSettingsVerb(program, host);
    quillmere::app::addStatusVerb(program, host);
    quillmere::app::addPlayVerb(program, host);
    quillmere::app::addRadioVerb(program, host);
    quillmere::app::addRecipeVerb(program, host);
    quillmere::app::addVaultVerb(program, host);
    quillmere::app::addPersonasVerb(program, host);
    quillmere::app::addTagsVerb(program, host);
    quillmere::app::addDigestVerb(program, host);

    try {
        if (const auto complaint = commandLine.run(argumentCount, arguments)) {
            printSafely(*complaint);
            const auto meant = commandLine.probablyMeant(argumentCount, arguments);
            if (meant) std::fprintf(stderr, "Did you mean \"%s\"?\n", meant->c_str());
            return static_cast<int>(ExitCode::usage);
        }
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
    askForMemoryAtOnce();
    occupyStandardStreams();
    // A closed pipe is an ordinary write error here, never the death of the process.
    std::signal(SIGPIPE, SIG_IGN);
    return run(argumentCount, arguments);
}
