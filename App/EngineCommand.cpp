#include "App/EngineCommand.hpp"

#include <fstream>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere::app {

std::vector<std::string> splitCommand(std::string_view command) {
    std::vector<std::string> words;
    std::string word;
    bool isInWord = false;
    char quote = 0;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        const bool hasNext = i + 1 < command.size();
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else if (c == '\\' && quote == '"' && hasNext && (command[i + 1] == '"' || command[i + 1] == '\\')) {
                word += command[++i];
            } else {
                word += c;
            }
        } else if (c == '"' || c == '\'') {
            quote = c;
            isInWord = true;
        } else if (c == '\\' && hasNext) {
            word += command[++i];
            isInWord = true;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (isInWord) words.push_back(std::move(word));
            word.clear();
            isInWord = false;
        } else {
            word += c;
            isInWord = true;
        }
    }
    if (quote != 0) throw Error("The engine command has an unclosed quote.");
    if (isInWord) words.push_back(std::move(word));
    return words;
}

std::filesystem::path programFolder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }

std::vector<std::string> defaultEngineCommand() {
    const auto folder = programFolder();
    for (const auto& place : {folder / "quillmere-tonebed", folder / "../libexec/quillmere/quillmere-tonebed"}) {
        if (std::filesystem::exists(place)) return {place.string()};
    }
    throw Error("The default engine \"quillmere-tonebed\" is not beside this program. Name an engine with --engine.");
}

std::string processorName() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        const auto colon = line.find(':');
        if (colon != std::string::npos && line.starts_with("model name")) {
            return std::string(trimmed(std::string_view(line).substr(colon + 1)));
        }
    }
    return {};
}

}  // namespace quillmere::app
