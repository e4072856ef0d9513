#include "QuillmereKit/Library/LoopIndex.hpp"

#include <algorithm>
#include <bit>
#include <utility>

namespace quillmere {

StoredLoop* LoopIndex::find(LoopKey key) const noexcept {
    if (slots_.empty()) return nullptr;
    std::size_t place = home(key);
    while (slots_[place].loop && slots_[place].key != key) place = next(place);
    return slots_[place].loop.get();
}

void LoopIndex::reserve(std::size_t count) {
    constexpr std::size_t fewest = 16;
    if (2 * count <= slots_.size()) return;
    std::vector<Slot> old(std::max(fewest, std::bit_ceil(2 * count)));
    old.swap(slots_);
    count_ = 0;
    for (auto& slot : old) {
        if (slot.loop) insert(std::move(slot.loop));
    }
}

StoredLoop& LoopIndex::insert(std::unique_ptr<StoredLoop> loop) noexcept {
    std::size_t place = home(loop->key);
    while (slots_[place].loop) place = next(place);
    slots_[place] = {loop->key, std::move(loop)};
    ++count_;
    return *slots_[place].loop;
}

void LoopIndex::removeLeaving() noexcept {
    for (std::size_t place = 0; place < slots_.size(); ++place) {
        while (slots_[place].loop && slots_[place].loop->isLeaving) removeAt(place);
    }
}

// Closes the gap with the pieces behind it that would no longer be found over it (Knuth, The Art of Computer
// Programming, volume 3, section 6.4, algorithm R).
void LoopIndex::removeAt(std::size_t place) noexcept {
    slots_[place].loop.reset();
    --count_;
    const auto distance = [this](std::size_t from, std::size_t to) { return (to - from) & (slots_.size() - 1); };
    for (std::size_t behind = next(place); slots_[behind].loop; behind = next(behind)) {
        if (distance(home(slots_[behind].key), behind) < distance(place, behind)) continue;
        slots_[place] = std::move(slots_[behind]);
        place = behind;
    }
}

}  // namespace quillmere
