#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "QuillmereKit/Platform/Errors.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"

namespace quillmere::tonebed {

/// A request that cannot be carried out as it stands. `what()` says why, for people.
class RequestError : public Error {
public:
    using Error::Error;
};

/// What the engine is asked to do: one line of JSON, engine protocol 1.
struct EngineRequest {
    enum class Kind { render, build };

    Kind kind = Kind::build;
    Piece piece;                   ///< For `render`, as all that follows.
    double dutyCycle = 1;          ///< The share of time that work may take, above 0 up to 1.
    std::filesystem::path folder;  ///< An absolute path.
    std::string file;              ///< The name of the file to write in the folder, without any folder of its own.

    /// The longest line that is read, in bytes.
    static constexpr std::size_t longestLine = std::size_t{1} << 20;

    /// Reads one line without its end. Throws `RequestError`.
    [[nodiscard]] static EngineRequest parse(std::string_view line);
};

}  // namespace quillmere::tonebed
