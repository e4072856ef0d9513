#include "Tests/Support/Vectors.hpp"

#include <cstdlib>
#include <fstream>

namespace quillmere::test {
namespace {

std::vector<std::string>& topics() {
    static std::vector<std::string> topics;
    return topics;
}

bool isOtherFolder() {
    const char* folder = std::getenv("QUILLMERE_VECTORS");
    return folder != nullptr && *folder != '\0';
}

}  // namespace

std::filesystem::path vectorsFolder() {
    return isOtherFolder() ? std::filesystem::path(std::getenv("QUILLMERE_VECTORS")) : QUILLMERE_VECTORS_FOLDER;
}

void forEachCase(std::string_view topic, const std::function<void(const VectorCase& vector)>& check) {
    const auto file = vectorsFolder() / (std::string(topic) + ".json");
    std::ifstream in(file, std::ios::binary);
    if (!in && isOtherFolder()) return;
    ASSERT_TRUE(in) << "no vectors at " << file;

    // One case a line, between the line that opens "cases" and the one that closes it.
    std::string text;
    int line = 0;
    int checked = 0;
    while (std::getline(in, text)) {
        ++line;
        if (!text.starts_with('{') || line == 1) continue;
        if (text.ends_with(',')) text.pop_back();
        SCOPED_TRACE(std::string(topic) + ", line " + std::to_string(line));
        const auto vector = VectorCase::parse(text, nullptr, false);
        ASSERT_FALSE(vector.is_discarded()) << "a line that is no case: " << text.substr(0, 200);
        try {
            check(vector);
        } catch (const std::exception& error) {
            ADD_FAILURE() << "unexpected error: " << error.what();
        }
        ++checked;
    }
    EXPECT_GT(checked, 0) << "no cases in " << file;
}

const std::vector<std::string>& coveredTopics() { return topics(); }

bool coverTopic(std::string_view topic) {
    topics().emplace_back(topic);
    return true;
}

}  // namespace quillmere::test
