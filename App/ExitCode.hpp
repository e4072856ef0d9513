#pragma once

namespace quillmere::app {

/// How the program ends. Documented in the README; scripts rely on the numbers.
enum class ExitCode {
    success = 0,
    failure = 1,        ///< The work was tried and failed; standard error says why.
    usage = 2,          ///< The command line is wrong.
    damage = 3,         ///< `library verify` found damaged, missing or unlisted files.
    libraryInUse = 4,   ///< Another process holds the library.
    notSaved = 5,       ///< The work was done, but it could not be saved, or a power cut may still undo the change.
    interrupted = 130,  ///< Ctrl-C, or a polite request to end.
};

}  // namespace quillmere::app
