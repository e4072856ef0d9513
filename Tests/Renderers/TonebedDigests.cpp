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
     "593978d47df5cca055a36db27d0ce2cc33dd35dfd5cfd8751e7dfe1609c346f2"},
    {{.moodID = "sprint",
      .calmPrompt = "pulsing synth arpeggio, warm sustained pads, steady forward motion, instrumental",
      .energeticPrompt = "driving synth arpeggio, steady electronic pulse, warm pads, forward motion, instrumental",
      .blendIndex = 4,
      .seed = -9000000000000000000,
      .frames = 240001},
     "3f035f4109ff92fc1ae977b85eceea3fb39016cddf9601d2c629a891de8d4280"},
    {{.moodID = "designflow",
      .calmPrompt = "warm analog synth pads, clean spacious sound, gentle motion, instrumental",
      .energeticPrompt = "melodic downtempo, brushed drums, airy synths, unobtrusive groove, instrumental",
      .blendIndex = 3,
      .seed = 77,
      .frames = 288000},
     "1bc2fda4114f2a06b9d7700a34aa61da80ab3fc3565902733e04a81bbec9b51d"},
    {{.moodID = "my-1",
      .prompt = "TrackType: Music, VocalType: Instrumental, Genre: lo-fi, Instruments: electric piano, upright bass, "
                "BPM: 76, tape hiss, vinyl crackle, rain, birdsong. swung drums",
      .blendIndex = 2,
      .seed = 5,
      .frames = 192000},
     "dce32cfcefa557be3e557422955f5d60cb00284f86dcd6c00e10afac07269376"},
    {{.moodID = "my-2",
      .prompt = "strings, choir, harp, flute, bells, marimba, ocean waves, wind, piano waltz in C minor",
      .blendIndex = 1,
      .seed = 6,
      .frames = 160000},
     "a9d9e0c96738cda6511a17a7460d135a78831c39e883efed40c791ac42c39cd8"},
    {{.moodID = "my-3",
      .prompt = "techno, driving drums, acid arpeggio, guitar, bright, dry, BPM: 140",
      .blendIndex = 4,
      .seed = 7,
      .frames = 48000},
     "0f1481e1c9b02cd55794e0c18ca694f4343f1c6b2a1c31e9a774095b81407bae"},
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
