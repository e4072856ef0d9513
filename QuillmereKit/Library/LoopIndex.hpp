#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "QuillmereKit/Library/StoredLoop.hpp"

namespace quillmere {

/// The pieces of a library by fingerprint: one flat table whose places the fingerprints themselves choose, being as
/// good as any hash. A piece keeps its address as long as it is in. Not thread-safe.
class LoopIndex {
public:
    [[nodiscard]] std::size_t size() const noexcept { return count_; }
    [[nodiscard]] StoredLoop* find(LoopKey key) const noexcept;

    /// Makes room for so many pieces in all. Throws only for lack of memory, and then nothing has changed.
    void reserve(std::size_t count);

    /// Takes in a piece whose fingerprint is not there yet. There must be room for it.
    StoredLoop& insert(std::unique_ptr<StoredLoop> loop) noexcept;

    /// Removes the pieces that are marked as leaving.
    void removeLeaving() noexcept;

    /// Calls `visit` with every piece, in no particular order.
    template <class Visit>
    void forEach(const Visit& visit) const {
        for (const auto& slot : slots_) {
            if (slot.loop) visit(*slot.loop);
        }
    }

private:
    // The key beside the piece, so that a search looks at no piece but the one it is for.
    struct Slot {
        LoopKey key;
        std::unique_ptr<StoredLoop> loop;
    };

    [[nodiscard]] std::size_t next(std::size_t place) const noexcept { return (place + 1) & (slots_.size() - 1); }
    [[nodiscard]] std::size_t home(LoopKey key) const noexcept { return key.value & (slots_.size() - 1); }
    void removeAt(std::size_t place) noexcept;

    std::vector<Slot> slots_;  // none, or a power of two, at most half of them taken
    std::size_t count_ = 0;
};

}  // namespace quillmere
