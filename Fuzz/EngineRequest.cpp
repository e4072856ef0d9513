#include "Renderers/Tonebed/EngineRequest.hpp"

#include <cmath>

#include "Fuzz/Sandbox.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"

// The line that the default engine is asked with.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;

    try {
        const auto request = tonebed::EngineRequest::parse(fuzz::text(data, size));
        if (request.kind == tonebed::EngineRequest::Kind::build) return 0;
        require(request.folder.is_absolute(), "the folder is an absolute path");
        require(std::filesystem::path(request.file).filename() == request.file && request.file != "..",
                "the file is a plain name");
        require(request.dutyCycle > 0 && request.dutyCycle <= 1, "the duty cycle is a share");
        constexpr std::int64_t twoMinutes = 120 * 48'000;
        require(request.piece.frames > 0 && request.piece.frames <= twoMinutes,
                "a piece has a length that can be made");
        for (const double value : tonebed::styleOf(request.piece).values) {
            require(std::isfinite(value), "a style is made of finite numbers");
        }
    } catch (const tonebed::RequestError& error) {
        require(!std::string_view(error.what()).empty(), "a refusal says why");
    }
    return 0;
}
