#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Renderers/Tonebed/ModalVoice.hpp"
#include "Renderers/Tonebed/OneShot.hpp"
#include "Renderers/Tonebed/Score.hpp"
#include "Renderers/Tonebed/Style.hpp"
#include "Renderers/Tonebed/WaveVoice.hpp"
#include "Renderers/Tonebed/Waveform.hpp"

namespace quillmere::tonebed {

/// The instruments of one piece: their timbres as the style wishes them, with details that the seed decides.
class Instruments {
public:
    /// Prepares what the score needs.
    Instruments(const Style& style, std::uint64_t seed, const Score& score);
    Instruments(const Instruments&) = delete;
    Instruments& operator=(const Instruments&) = delete;

    /// How a voice makes its sound.
    enum class Kind { wave, modal, oneShot };
    [[nodiscard]] static Kind kind(Voice voice) noexcept;

    /// For voices of kind `wave`.
    [[nodiscard]] WaveVoice::Settings wave(const Note& note) const;
    /// For voices of kind `modal`.
    [[nodiscard]] ModalVoice::Settings modal(const Note& note) const;
    /// For voices of kind `oneShot`.
    [[nodiscard]] const OneShot& oneShot(const Note& note) const noexcept;

    /// The most frames that a note sounds from its start on.
    [[nodiscard]] std::int64_t reach(const Note& note) const;

private:
    void prepareWave(Voice voice, std::uint64_t seed);

    const Style style_;
    double attackShare_ = 0.4;  // how much of its length a sustained note takes to come
    double decayTaste_ = 1;
    double tineTaste_ = 0.5;
    double bellTaste_ = 0;
    double pickTaste_ = 0.2;
    double detuneTaste_ = 1;
    std::array<std::unique_ptr<Waveform>, static_cast<std::size_t>(Voice::count)> waveforms_;
    std::array<std::unique_ptr<Waveform>, static_cast<std::size_t>(Voice::count)> brightWaveforms_;
    std::array<std::vector<OneShot>, static_cast<std::size_t>(Voice::count)> oneShots_;
};

}  // namespace quillmere::tonebed
