#include "QuillmereKit/Playback/RadioSet.hpp"

#include <algorithm>
#include <utility>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

std::optional<RadioSet> RadioSet::make(std::vector<std::string> moodIDs, const std::optional<std::string>& onAir) {
    if (moodIDs.empty()) return std::nullopt;
    const bool isListed = onAir && std::ranges::find(moodIDs, *onAir) != moodIDs.end();
    std::string first = isListed ? *onAir : moodIDs.front();
    return RadioSet(std::move(moodIDs), std::move(first));
}

bool RadioSet::contains(std::string_view moodID) const noexcept {
    return std::ranges::find(moodIDs_, moodID) != moodIDs_.end();
}

RadioSet::ToggleResult RadioSet::toggle(const std::string& moodID) {
    const auto found = std::ranges::find(moodIDs_, moodID);
    if (found == moodIDs_.end()) {
        moodIDs_.push_back(moodID);
        return {ToggleResult::Added{moodID}};
    }
    if (moodIDs_.size() == 1) return {ToggleResult::RefusedLastMood{}};

    std::string removed = std::move(*found);  // the argument may be this very one
    const auto position = static_cast<std::size_t>(found - moodIDs_.begin());
    moodIDs_.erase(found);
    if (onAir_ == removed) onAir_ = moodIDs_[std::min(position, moodIDs_.size() - 1)];
    return {ToggleResult::Removed{std::move(removed)}};
}

const std::string& RadioSet::advance() {
    if (moodIDs_.size() < 2) return onAir_;
    const auto found = std::ranges::find(moodIDs_, onAir_);
    const std::size_t position = found == moodIDs_.end() ? 0 : static_cast<std::size_t>(found - moodIDs_.begin());
    onAir_ = moodIDs_[(position + 1) % moodIDs_.size()];
    return onAir_;
}

std::string RadioSet::summary() const {
    return "Radio · " + std::to_string(count()) + " mood" + (count() == 1 ? "" : "s");
}

void encode(JSONWriter& writer, const RadioSet& radio) {
    writer.beginObject();
    writer.member("moodIDs", radio.moodIDs());
    writer.member("onAir", radio.onAir());
    writer.endObject();
}

template <>
RadioSet decode<RadioSet>(const JSONValue& value) {
    return {value.member<std::vector<std::string>>("moodIDs"), value.member<std::string>("onAir")};
}

}  // namespace quillmere
