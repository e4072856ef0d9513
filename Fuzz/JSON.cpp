#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>

#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

// The JSON reader by itself: it takes exactly what another, slow reader takes, every value can be asked for anything,
// and what is written again is read as the same.

namespace {

using quillmere::JSONDocument;
using quillmere::JSONError;
using quillmere::JSONValue;
using quillmere::fuzz::require;

enum class Verdict { accepted, refused, outOfRange };

// Hears only whether a text is JSON. What the other reader cannot tell is a number that no double holds.
struct Judge : nlohmann::json_sax<nlohmann::json> {
    bool null() override { return true; }
    bool boolean(bool /*value*/) override { return true; }
    bool number_integer(number_integer_t /*value*/) override { return true; }
    bool number_unsigned(number_unsigned_t /*value*/) override { return true; }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
    bool string(string_t& /*value*/) override { return true; }
    bool binary(binary_t& /*value*/) override { return true; }
    bool start_object(std::size_t /*count*/) override { return enter(); }
    bool key(string_t& /*value*/) override { return true; }
    bool end_object() override { return leave(); }
    bool start_array(std::size_t /*count*/) override { return enter(); }
    bool end_array() override { return leave(); }
    bool parse_error(std::size_t /*place*/, const std::string& /*token*/,
                     const nlohmann::json::exception& error) override {
        constexpr int numberOutOfRange = 406;
        verdict = error.id == numberOutOfRange ? Verdict::outOfRange : Verdict::refused;
        return false;
    }

    bool enter() {
        deepest = std::max(deepest, ++depth);
        return true;
    }
    bool leave() {
        --depth;
        return true;
    }

    Verdict verdict = Verdict::accepted;
    int depth = 0;
    int deepest = 0;
};

template <class Ask>
void askFor(const Ask& ask) {
    try {
        ask();
    } catch (const JSONError&) {
        return;  // of another type
    }
}

void askForEverything(const JSONValue& value) {
    askFor([&] { static_cast<void>(value.boolean()); });
    askFor([&] { static_cast<void>(value.string()); });
    askFor([&] {
        const std::int64_t whole = value.integer();
        require(quillmere::decodeJSON<std::int64_t>(value.text()) == whole, "a whole number keeps its value");
    });
    askFor([&] {
        const double number = value.number();
        require(std::abs(number) <= std::numeric_limits<double>::max(), "a number is finite");
        require(std::memcmp(&number, &static_cast<const double&>(JSONDocument::parse(value.text()).root().number()),
                            sizeof(number)) == 0,
                "a number keeps its bits");
    });
    askFor([&] {
        for (const auto& element : value.elements()) askForEverything(element);
    });
    askFor([&] {
        for (const auto& [key, member] : value.members()) {
            require(value.find(key).has_value(), "a key that is there is found");
            askForEverything(member);
        }
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = quillmere::fuzz::text(data, size);
    Judge judge;
    nlohmann::json::sax_parse(text, &judge);
    // The other reader takes a zero byte for the text's end; there is none in JSON.
    if (text.find('\0') != std::string_view::npos) judge.verdict = Verdict::refused;
    try {
        const auto document = JSONDocument::parse(text);
        require(judge.verdict != Verdict::refused, "another reader takes what is taken");
        const std::string written = document.root().text();
        require(JSONDocument::parse(written).root().text() == written, "what is written again is read as the same");
        constexpr std::size_t enough = 4096;  // asking takes the square of the depth
        if (size <= enough) askForEverything(document.root());
    } catch (const JSONError& error) {
        constexpr int surelyRead = 512;
        const bool isDeep = judge.deepest > surelyRead;
        require(judge.verdict != Verdict::accepted || isDeep, "what another reader takes is taken");
        require(!error.reason().empty(), "an error says what is wrong");
    }
    return 0;
}
