#pragma once

#include <string>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// An engine did not deliver what it was asked for. `what()` is a sentence for the user, with the end of what the
/// engine wrote to its standard error where that can help.
class EngineFailure : public Error {
public:
    /// What went wrong.
    enum class Reason {
        unusableRequest,  ///< The request cannot be rendered by any engine; nothing was started.
        notStarted,       ///< The engine, or the supervisor program that it runs under, could not be started.
        exitStatus,       ///< It ended with a status other than 0.
        signalled,        ///< A signal ended it.
        silent,           ///< It reported nothing for too long and was ended.
        lingering,        ///< It closed its output or sent its result, but did not end in time, and was ended.
        flooding,         ///< It wrote more than anybody has to say and was ended.
        noResult,         ///< It ended well, but sent no result.
        malformedReport,  ///< A line that must be a report could not be read as one.
        refusedFile,      ///< It named a file outside its working folder, through a link, or one that is not there.
        wrongAudio,       ///< Its file is not the audio that was asked for.
        nameInUse,        ///< The library uses a file of the piece's name for something else.
        lost,             ///< The supervisor was killed, or could not be watched; the engine was ended with it.
    };

    /// A failure with its sentence for the user.
    EngineFailure(Reason reason, const std::string& text) : Error(text), reason_(reason) {}

    /// What went wrong.
    [[nodiscard]] Reason reason() const noexcept { return reason_; }

private:
    Reason reason_;
};

}  // namespace quillmere
