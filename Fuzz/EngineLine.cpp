#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "Renderers/EngineProtocol.hpp"
#include "Renderers/LineSplitter.hpp"
#include "Renderers/TextTail.hpp"

// What an engine writes: to its standard output, from the bytes to what each line means, and to its standard error,
// whose end is shown when it fails.

namespace {

using namespace quillmere;
using fuzz::require;

constexpr std::size_t lineLimit = 256;
constexpr std::size_t tailLimit = 32;

std::vector<std::string> linesOf(std::string_view bytes, std::size_t chunk) {
    std::vector<std::string> lines;
    LineSplitter splitter(lineLimit);
    const auto take = [&](std::string_view line) { lines.emplace_back(line); };
    for (std::size_t start = 0; start < bytes.size(); start += chunk) splitter.append(bytes.substr(start, chunk), take);
    splitter.finish(take);
    return lines;
}

// The plain way, which holds the whole text.
std::vector<std::string> expectedLines(std::string_view bytes) {
    std::vector<std::string> lines;
    while (!bytes.empty()) {
        const auto end = bytes.find('\n');
        const auto line = bytes.substr(0, end);
        const bool isLast = end == std::string_view::npos;
        if (line.size() <= lineLimit && !(isLast && line.empty())) lines.emplace_back(line);
        bytes.remove_prefix(isLast ? bytes.size() : end + 1);
    }
    return lines;
}

std::string text(const GenerationActivity& activity) {
    for (std::int64_t seconds = 1; seconds <= 5; ++seconds) {
        if (activity == GenerationActivity(GenerationActivity::Waiting{seconds})) {
            return "waiting " + std::to_string(seconds);
        }
    }
    return activity == GenerationActivity(GenerationActivity::Loading{}) ? "loading" : "running";
}

std::string text(std::int64_t part, std::int64_t whole) {
    require(0 < part && part <= whole, "a fraction is above 0 and at most 1");
    return std::to_string(part) + "/" + std::to_string(whole);
}

// A line that says the same.
struct Line {
    std::string operator()(const GenerationStage::Sampling& s) const { return "sample " + text(s.step, s.total); }
    std::string operator()(const GenerationStage::EncodingBlock& s) const {
        return "progress encoding " + text(s.block, s.total) + " " + text(s.activity);
    }
    std::string operator()(const GenerationStage::SamplingBlock& s) const {
        return "progress sampling " + text(s.step, s.total) + " " + text(s.block, s.blocks) + " " + text(s.activity);
    }
    std::string operator()(const GenerationStage::DecodingBlock& s) const {
        return "progress decoding " + text(s.window, s.windows) + " " + text(s.block, s.blocks) + " " +
               text(s.activity);
    }
    std::string operator()(GenerationStage::Encoding) const { return "text encoder"; }
    std::string operator()(GenerationStage::Decoding) const { return "decoder"; }
    std::string operator()(GenerationStage::Preparing) const { return {}; }
    std::string operator()(GenerationStage::Processing) const { return {}; }
};

std::string tailOf(std::string_view bytes, std::size_t chunk) {
    TextTail tail(tailLimit);
    for (std::size_t start = 0; start < bytes.size(); start += chunk) tail.append(bytes.substr(start, chunk));
    return tail.text();
}

void checkTail(std::string_view bytes) {
    const auto text = tailOf(bytes, 1);
    for (const std::size_t chunk : {std::size_t{7}, std::size_t{40}, std::max<std::size_t>(bytes.size(), 1)}) {
        require(tailOf(bytes, chunk) == text, "a tail is the same however it arrives");
    }
    require(isValidUTF8(text) && trimmed(text) == text, "a tail can stand in a message");
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        require(character == '\n' || (code >= 0x20 && code != 0x7F), "a tail steers no terminal");
    }
    const bool isPlain = std::ranges::all_of(bytes, [](char character) { return character > ' ' && character < 0x7F; });
    require(!isPlain || text == bytes.substr(bytes.size() - std::min(bytes.size(), tailLimit)), "a tail is the end");
}

void check(std::string_view line) {
    const auto stage = GenerationStage::fromEngineLine(line);
    const auto report = engineProtocol::report(line);
    require(!stage || report, "a stage is a report");
    if (!stage) return;
    require(!stage->label().empty(), "a stage has a label");
    require(GenerationStage::fromEngineLine(std::visit(Line{}, stage->value())) == stage,
            "a stage written as a line is read as the same stage");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = fuzz::text(data, size);
    const auto lines = expectedLines(bytes);
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, std::max<std::size_t>(size, 1)}) {
        require(linesOf(bytes, chunk) == lines, "lines are the same however they arrive");
    }
    for (const auto& line : lines) check(line);
    check(bytes);
    checkTail(bytes);
    return 0;
}
