#include <QuillmereKit/Library/AudioPCM.hpp>
#include <QuillmereKit/Library/LosslessEncoder.hpp>
#include <QuillmereKit/Moods/Persona.hpp>
#include <QuillmereKit/Platform/LosslessModule.hpp>
#include <QuillmereKit/Platform/ResourceBundle.hpp>
#include <QuillmereKit/Platform/WAVFile.hpp>
#include <Renderers/ProcessRenderer.hpp>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

// consumer PREFIX FOLDER [without]: whether the library finds what was installed with it below PREFIX, and can make a
// lossless file in FOLDER; or, with a third argument, says that it cannot. Exit status 0 if all is as it must be.
int main(int argumentCount, char** arguments) {
    using namespace quillmere;
    if (argumentCount < 3) return 2;
    const std::filesystem::path prefix = arguments[1];
    const std::filesystem::path folder = arguments[2];
    const bool isModuleExpected = argumentCount == 3;
    const auto require = [](bool holds, const std::string& what) {
        if (holds) return;
        std::cerr << "consumer: " << what << '\n';
        std::exit(1);
    };

    const auto resources = ResourceBundle::library().folder();
    require(resources == prefix / "share/quillmerekit", "the resources are taken from " + resources.string());
    require(!PersonaCatalog::bundled().personas().empty(), "there are no personas");

    const auto wav = folder / "consumer.wav";
    std::vector<std::int16_t> samples(20'000);
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::int16_t>(i * 31);
    WAVWriter writer(wav, 48000, 2);
    writer.write(samples);
    writer.finish();
    const auto source = FileURL::fromPath(wav);
    const auto target = FileURL::fromPath(folder / "consumer.m4a");
    try {
        encodeALAC(source, target);
        require(isModuleExpected, "a lossless module was found where there is none");
        require(AudioPCM::digest(source) == AudioPCM::digest(target), "the lossless file is another one");
    } catch (const LosslessUnavailable& error) {
        require(!isModuleExpected, error.what());
        std::cout << error.what() << '\n';
    }
    std::cout << "consumer: all found in " << prefix.string() << '\n';
}
