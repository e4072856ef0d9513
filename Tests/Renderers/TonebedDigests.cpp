// Renders a handful of pieces and compares the SHA-256 of their WAV files with a table. The digests are kept only to
// notice a change of sound: whoever changes the sound on purpose raises the engine's build and puts the new ones here.
// The program is built several times, with the synthesizer compiled at different levels of optimisation.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/SHA256.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"

namespace {

using quillmere::tonebed::Piece;
using quillmere::tonebed::Synthesizer;

struct Row {
    Piece piece;
    const char* digest;
};

// Of the sound "tonebed-1".
const Row rows[] = {
    {{.moodID = "deepcode",
      .calmPrompt = "sustained warm pads, gentle motion, smooth, instrumental",
      .energeticPrompt = "soft electronic pulse, warm sustained pads, gentle motion, instrumental",
      .blendIndex = 0,
      .seed = 1,
      .frames = 384000},
     "DIGEST0"},
    {{.moodID = "sprint",
      .calmPrompt = "pulsing synth arpeggio, warm sustained pads, steady forward motion, instrumental",
      .energeticPrompt = "driving synth arpeggio, steady electronic pulse, warm pads, forward motion, instrumental",
      .blendIndex = 4,
      .seed = -9000000000000000000,
      .frames = 240001},
     "DIGEST1"},
    {{.moodID = "designflow",
      .calmPrompt = "warm analog synth pads, clean spacious sound, gentle motion, instrumental",
      .energeticPrompt = "melodic downtempo, brushed drums, airy synths, unobtrusive groove, instrumental",
      .blendIndex = 3,
      .seed = 77,
      .frames = 288000},
     "DIGEST2"},
    {{.moodID = "my-1",
      .prompt = "TrackType: Music, VocalType: Instrumental, Genre: lo-fi, Instruments: electric piano, upright bass, "
                "BPM: 76, tape hiss, vinyl crackle, rain, birdsong. swung drums",
      .blendIndex = 2,
      .seed = 5,
      .frames = 192000},
     "DIGEST3"},
    {{.moodID = "my-2",
      .prompt = "strings, choir, harp, flute, bells, marimba, ocean waves, wind, piano waltz in C minor",
      .blendIndex = 1,
      .seed = 6,
      .frames = 160000},
     "DIGEST4"},
    {{.moodID = "my-3",
      .prompt = "techno, driving drums, acid arpeggio, guitar, bright, dry, BPM: 140",
      .blendIndex = 4,
      .seed = 7,
      .frames = 48000},
     "DIGEST5"},
};

std::string digestOf(const Piece& piece, const std::filesystem::path& file) {
    Synthesizer synthesizer(piece);
    synthesizer.play(synthesizer.framesToPlay());
    synthesizer.finish();
    std::vector<std::int16_t> samples(static_cast<std::size_t>(2 * piece.frames));
    synthesizer.read(0, samples);
    quillmere::WAVWriter writer(file, 48000, 2);
    writer.write(samples);
    writer.finish();
    std::ifstream in(file, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    return quillmere::hexadecimal(quillmere::SHA256::digest(bytes));
}

}  // namespace

int main() {
    std::string folder = (std::filesystem::temp_directory_path() / "quillmere-digests-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) return 1;
    int changed = 0;
    int number = 0;
    for (const Row& row : rows) {
        const std::string digest = digestOf(row.piece, std::filesystem::path(folder) / std::to_string(number));
        const bool isSame = digest == row.digest;
        std::printf("%d %s %s\n", number, digest.c_str(), isSame ? "as before" : "CHANGED");
        changed += isSame ? 0 : 1;
        ++number;
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return changed == 0 ? 0 : 1;
}
