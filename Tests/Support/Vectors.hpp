#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::test {

/// One case of a topic file, read by an independent JSON parser.
using VectorCase = nlohmann::json;

/// The folder of the topic files: `QUILLMERE_VECTORS`, or the project's own.
[[nodiscard]] std::filesystem::path vectorsFolder();

/// Runs `check` on every case of a topic file, naming topic and line in each failure. A missing or
/// empty topic in the project's own folder is a failure; in another folder it has no cases.
void forEachCase(std::string_view topic, const std::function<void(const VectorCase& vector)>& check);

/// The topics that some test of this program checks.
[[nodiscard]] const std::vector<std::string>& coveredTopics();

/// Notes that a test covers `topic`; through `QUILLMERE_VECTOR_TEST` only.
bool coverTopic(std::string_view topic);

}  // namespace quillmere::test

/// A test `Vectors.Name` on every case of the topic file "topic.json"; the body sees one case as `vector`.
///
///     QUILLMERE_VECTOR_TEST(BlendSteps, "blend-steps") { EXPECT_EQ(BlendStep(vector["index"].get<int>()).label(),
///     ...); }
#define QUILLMERE_VECTOR_TEST(Name, topic)                                                     \
    static void checkVector##Name(const ::quillmere::test::VectorCase& vector);                \
    [[maybe_unused]] static const bool isCovered##Name = ::quillmere::test::coverTopic(topic); \
    TEST(Vectors, Name) { ::quillmere::test::forEachCase(topic, checkVector##Name); }          \
    static void checkVector##Name(const ::quillmere::test::VectorCase& vector)
