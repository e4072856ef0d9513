#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/Terminal.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"

namespace quillmere::app {

void addDigestVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("digest", "Print the digest of audio files' samples, whatever holds them");
    verb.footer(
        "A WAV file and its lossless copy have the same digest: SHA-256 of the interleaved 16-bit samples.\n\n"
        "Example: quillmere digest piece.wav");
    auto files = std::make_shared<std::vector<std::string>>();
    verb.addOption("file", *files, "WAV files, or Apple Lossless ones").typeName("FILE").required();
    addJSONOption(verb, host);
    verb.callback([files, &host] {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginArray();
        for (const auto& file : *files) {
            try {
                const std::string digest = AudioPCM::digest(FileURL::fromPath(std::filesystem::absolute(file)));
                writer.beginObject();
                writer.member("file", pathText(file));
                writer.member("digest", digest);
                writer.endObject();
                if (!host.json) std::printf("%s  %s\n", digest.c_str(), safeForTerminal(file).c_str());
            } catch (const Error& error) {
                host.fail(ExitCode::failure, error.what());
            }
        }
        writer.endArray();
        if (host.json) printJSON(writer);
    });
}

}  // namespace quillmere::app
