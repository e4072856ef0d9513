#include "App/MemoryPressure.hpp"

#include <gtest/gtest.h>

#include <string>

#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::app {
namespace {

using Pressure = GenerationMemoryPressure;

std::string figures(const std::string& some, const std::string& full) {
    return "some avg10=" + some + " avg60=0.00 avg300=0.00 total=0\nfull avg10=" + full +
           " avg60=0.00 avg300=0.00 total=0\n";
}

TEST(MemoryPressureTests, AShareOfWaitingTasksIsAWarningAndOfAllTasksCritical) {
    EXPECT_EQ(memoryPressure(figures("0.00", "0.00")), Pressure::normal);
    EXPECT_EQ(memoryPressure(figures("9.99", "9.99")), Pressure::normal);
    EXPECT_EQ(memoryPressure(figures("10.00", "0.00")), Pressure::warning);
    EXPECT_EQ(memoryPressure(figures("99.00", "9.99")), Pressure::warning);
    EXPECT_EQ(memoryPressure(figures("10.00", "10.00")), Pressure::critical);
    EXPECT_EQ(memoryPressure("some avg10=12.00 avg60=0.00 avg300=0.00 total=0\n"), Pressure::warning);
}

TEST(MemoryPressureTests, TextThatIsNoneOfTheKernelsTellsNothing) {
    for (const char* text : {"", "some", "some avg10=", "some avg10=x", "some avg10=-1", "some avg10=nan",
                             "awesome avg10=50.00", "full avg10=50.00 avg60=0.00 avg300=0.00 total=0\n"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(memoryPressure(text), std::nullopt);
    }
}

TEST(MemoryPressureTests, AMissingFileTellsNothing) {
    const test::TemporaryFolder folder;

    EXPECT_EQ(presentMemoryPressure(folder.path() / "missing"), std::nullopt);
    EXPECT_EQ(presentMemoryPressure(folder.path()), std::nullopt);
    EXPECT_EQ(presentMemoryPressure(folder.putFile("memory", figures("20.00", "0.00"))), Pressure::warning);
}

}  // namespace
}  // namespace quillmere::app
