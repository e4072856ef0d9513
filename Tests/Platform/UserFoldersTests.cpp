#include "QuillmereKit/Platform/UserFolders.hpp"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>

namespace quillmere::test {
namespace {

using std::filesystem::path;

/// Restores the environment variables that it changed.
class Environment {
public:
    ~Environment() {
        for (const auto& [name, value] : old_) {
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
        }
    }

    void set(const std::string& name, const std::optional<std::string>& value) {
        const char* const old = std::getenv(name.c_str());
        old_.try_emplace(name, old == nullptr ? std::nullopt : std::optional<std::string>(old));
        if (value)
            ::setenv(name.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name.c_str());
    }

private:
    std::map<std::string, std::optional<std::string>> old_;
};

struct UserFoldersTests : testing::Test {
    Environment environment;

    UserFoldersTests() {
        environment.set("HOME", "/home/somebody");
        environment.set("XDG_DATA_HOME", std::nullopt);
        environment.set("XDG_CONFIG_HOME", std::nullopt);
        environment.set("QUILLMERE_HOME", std::nullopt);
    }
};

TEST_F(UserFoldersTests, FollowTheDesktopsVariables) {
    environment.set("XDG_DATA_HOME", "/data");
    environment.set("XDG_CONFIG_HOME", "/settings");

    EXPECT_EQ(UserFolders::applicationData(), "/data/Quillmere");
    EXPECT_EQ(UserFolders::configuration(), "/settings/Quillmere");
}

TEST_F(UserFoldersTests, LieInTheHomeFolderWhereTheVariablesAreUnsetEmptyOrRelative) {
    for (const std::optional<std::string>& value :
         {std::optional<std::string>(), {""}, {"data"}, {"./data"}, {"~/data"}}) {
        environment.set("XDG_DATA_HOME", value);
        environment.set("XDG_CONFIG_HOME", value);

        EXPECT_EQ(UserFolders::applicationData(), "/home/somebody/.local/share/Quillmere");
        EXPECT_EQ(UserFolders::configuration(), "/home/somebody/.config/Quillmere");
    }
}

TEST_F(UserFoldersTests, WithoutAUsableHomeVariableThePasswdEntryCounts) {
    const passwd* const entry = ::getpwuid(::getuid());
    ASSERT_NE(entry, nullptr) << "the user who runs the tests has no passwd entry";
    const path home = entry->pw_dir;

    for (const std::optional<std::string>& value : {std::optional<std::string>(), {""}, {"home/somebody"}}) {
        environment.set("HOME", value);

        EXPECT_EQ(UserFolders::applicationData(), home / ".local/share/Quillmere");
        EXPECT_EQ(UserFolders::configuration(), home / ".config/Quillmere");
    }
}

TEST_F(UserFoldersTests, AreAllInTheFolderThatTheApplicationsVariableNames) {
    environment.set("XDG_DATA_HOME", "/data");
    environment.set("QUILLMERE_HOME", "/elsewhere");
    EXPECT_EQ(UserFolders::applicationData(), "/elsewhere");
    EXPECT_EQ(UserFolders::configuration(), "/elsewhere");
    EXPECT_TRUE(UserFolders::isMoved());

    environment.set("QUILLMERE_HOME", "relative");
    EXPECT_EQ(UserFolders::applicationData(), std::filesystem::current_path() / "relative");

    environment.set("QUILLMERE_HOME", "");
    EXPECT_EQ(UserFolders::applicationData(), "/data/Quillmere");
    EXPECT_FALSE(UserFolders::isMoved());
}

TEST_F(UserFoldersTests, TemporaryFilesGoWhereTheSystemSays) {
    environment.set("TMPDIR", "/scratch");
    EXPECT_EQ(UserFolders::temporary(), "/scratch");
    for (const std::optional<std::string>& value : {std::optional<std::string>(), {""}, {"scratch"}}) {
        environment.set("TMPDIR", value);
        EXPECT_EQ(UserFolders::temporary(), "/tmp");
    }
}

TEST_F(UserFoldersTests, TheHarnessIsKnownByItsVariableWhateverItHolds) {
    EXPECT_TRUE(UserFolders::isAutomatedHarness());
    environment.set("XCTestConfigurationFilePath", "");
    EXPECT_TRUE(UserFolders::isAutomatedHarness());
    environment.set("XCTestConfigurationFilePath", std::nullopt);
    EXPECT_FALSE(UserFolders::isAutomatedHarness());
}

// Moving is for the rest of a process, so each of these has one of its own.
TEST_F(UserFoldersTests, MovingThemGoesBeforeEveryVariable) {
    environment.set("QUILLMERE_HOME", "/elsewhere");
    const auto move = [](const path& home) {
        UserFolders::moveTo(home);
        const auto expected = std::filesystem::current_path() / home;
        const bool isMoved = UserFolders::applicationData() == expected && UserFolders::configuration() == expected;
        std::_Exit(isMoved ? 0 : 1);
    };

    EXPECT_EXIT(move("/moved"), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(move("moved"), testing::ExitedWithCode(0), "");
    EXPECT_EQ(UserFolders::applicationData(), "/elsewhere");
}

TEST(UserFoldersDeathTest, MovingThemNowhereStopsTheProcess) {
    EXPECT_DEATH(UserFolders::moveTo(""), "must have a name");
}

}  // namespace
}  // namespace quillmere::test
