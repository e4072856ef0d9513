#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "Tests/Support/Vectors.hpp"

namespace quillmere::test {
namespace {

// Topics whose subject is still to be built.
const std::set<std::string> awaitedTopics = {};

TEST(Vectors, EveryTopicFileIsKnownToATest) {
    const std::set<std::string> covered(coveredTopics().begin(), coveredTopics().end());

    for (const auto& entry : std::filesystem::directory_iterator(vectorsFolder())) {
        if (entry.path().extension() != ".json") continue;
        const std::string topic = entry.path().stem();
        EXPECT_TRUE(covered.contains(topic) || awaitedTopics.contains(topic)) << "no test knows the topic " << topic;
    }
}

TEST(Vectors, NoAwaitedTopicIsAlreadyCovered) {
    for (const auto& topic : coveredTopics()) EXPECT_FALSE(awaitedTopics.contains(topic)) << topic;
}

}  // namespace
}  // namespace quillmere::test
