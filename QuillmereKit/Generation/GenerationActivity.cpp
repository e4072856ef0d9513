#include "QuillmereKit/Generation/GenerationActivity.hpp"

namespace quillmere {

std::string GenerationActivity::label() const {
    if (const auto* waiting = std::get_if<Waiting>(&value_)) {
        return "Taking a short break · " + std::to_string(waiting->seconds) + " s";
    }
    return std::holds_alternative<Loading>(value_) ? "Getting ready" : "Creating music";
}

}  // namespace quillmere
