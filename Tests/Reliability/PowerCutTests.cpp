// What a power cut may leave of an operation, at every moment of it, and what the next start makes of that; and that
// each operation asks for its syncs in the right order.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Tests/Reliability/Checks.hpp"
#include "Tests/Reliability/Disk.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

using Fate = Disk::Fate;

int numberFrom(const char* variable, int otherwise) {
    const char* text = std::getenv(variable);
    return text == nullptr ? otherwise : std::atoi(text);
}

/// What may be on the disk after a power cut now: nothing of what is pending, all of it, each change alone, all but
/// each, the names without the bytes, and so on; and as many random choices as asked for.
std::vector<Tree> powerCuts(const Disk& disk, std::mt19937& random, int randomChoices) {
    std::vector<Tree> trees;
    const auto all = [](Fate fate) { return [fate](std::size_t, bool) { return fate; }; };
    trees.push_back(disk.afterPowerCut(all(Fate::lost)));
    if (disk.pending() == 0) return trees;
    for (const auto fate : {Fate::kept, Fate::torn, Fate::zeros}) trees.push_back(disk.afterPowerCut(all(fate)));
    trees.push_back(disk.afterPowerCut([](std::size_t, bool isName) { return isName ? Fate::kept : Fate::lost; }));
    trees.push_back(disk.afterPowerCut([](std::size_t, bool isName) { return isName ? Fate::lost : Fate::kept; }));
    for (std::size_t one = 0; one < disk.pending(); ++one) {
        trees.push_back(
            disk.afterPowerCut([&](std::size_t index, bool) { return index == one ? Fate::kept : Fate::lost; }));
        trees.push_back(
            disk.afterPowerCut([&](std::size_t index, bool) { return index == one ? Fate::lost : Fate::kept; }));
    }
    for (int choice = 0; choice < randomChoices; ++choice) {
        std::vector<Fate> fates;
        for (std::size_t index = 0; index < disk.pending(); ++index) fates.push_back(static_cast<Fate>(random() % 4));
        trees.push_back(disk.afterPowerCut([&](std::size_t index, bool) { return fates[index]; }));
    }
    return trees;
}

/// One run of the operation, recorded.
std::vector<RecordedCall> recorded(const Stage& stage) {
    std::vector<RecordedCall> calls;
    auto session = stage.begin();
    {
        const SystemCallFaults recording({.record = &calls});
        EXPECT_EQ(stage.act(*session).error, "");
    }
    EXPECT_TRUE(session->isSaved());
    return calls;
}

class PowerCuts : public testing::TestWithParam<Operation> {};

TEST_P(PowerCuts, LeaveTheOldOrTheNewAtEveryMoment) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    const auto calls = recorded(stage);
    const int choices = numberFrom("QUILLMERE_POWER_CUTS", 6);

    std::mt19937 random(7);
    Disk disk(stage.home(), stage.before(), GetParam().isUnsynced);
    std::set<std::pair<Tree, bool>> seen;
    for (std::size_t index = 0; index <= calls.size(); ++index) {
        if (index > 0) disk.apply(calls[index - 1]);
        const bool wasDone = index == calls.size();
        for (auto& tree : powerCuts(disk, random, choices)) {
            if (!seen.insert({tree, wasDone}).second) continue;
            SCOPED_TRACE("power cut after call " + std::to_string(index) + " of " + std::to_string(calls.size()));
            writeTree(stage.home(), tree);
            stage.checkAfterStop(wasDone, true);
            if (HasFailure()) return;
        }
    }
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) {
        std::cout << GetParam().name << ": " << seen.size() << " states after power cuts, " << calls.size()
                  << " calls\n";
    }
}

class DurabilityOrder : public testing::TestWithParam<Operation> {};

TEST_P(DurabilityOrder, BytesThenNamesThenTheListThatNamesThem) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    const auto shelf = GetParam().shelf;
    const auto main = stage.home() / mainFile(shelf);
    Disk disk(stage.home(), stage.before(), GetParam().isUnsynced);
    int renames = 0;
    const auto calls = recorded(stage);
    for (const auto& call : calls) {
        const bool givesName = call.kind == RecordedCall::Kind::rename || call.kind == RecordedCall::Kind::link;
        if (givesName) {
            EXPECT_TRUE(disk.areBytesSafe(call.path)) << call.path << " gets the name " << call.to << " unsynced";
            ++renames;
        }
        if (givesName && call.to == main && shelf == Shelf::loops) {
            const auto onDisk = disk.safeTree();
            const auto asked = disk.afterPowerCut([](std::size_t, bool) { return Fate::kept; });
            const auto isWhole = [](const Tree& tree, const Tree::value_type& audio) {
                const auto found = tree.find(audio.first);
                return found != tree.end() && found->second == audio.second;
            };
            for (const auto& line : linesIn(shelf, asked.at(call.path.lexically_relative(stage.home())))) {
                const auto audio = onDisk.find(audioOf(line, stage.home()));
                const bool isSafe =
                    audio != onDisk.end() && (isWhole(stage.after(), *audio) || isWhole(stage.before(), *audio));
                EXPECT_TRUE(isSafe) << "listed before it is safe: " << line;
            }
        }
        disk.apply(call);
    }

    stage.checkIsSafe(calls);
    const bool isChanged = !stage.before().contains(mainFile(shelf)) ||
                           stage.after().at(mainFile(shelf)) != stage.before().at(mainFile(shelf));
    EXPECT_TRUE(renames > 0 || !isChanged);
}

INSTANTIATE_TEST_SUITE_P(Every, DurabilityOrder, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

INSTANTIATE_TEST_SUITE_P(Every, PowerCuts, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace quillmere::test
