#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

// Every test program runs with the user's folders in a temporary place and the automated harness's variable
// set, so that no test can touch what a user owns.
int main(int argumentCount, char** arguments) {
    std::string home = (std::filesystem::temp_directory_path() / "quillmere-tests-XXXXXX").string();
    if (mkdtemp(home.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const auto place = [&](const char* variable, const char* folder) {
        const std::string path = home + "/" + folder;
        std::filesystem::create_directories(path);
        setenv(variable, path.c_str(), 1);
    };
    place("HOME", "home");
    place("XDG_DATA_HOME", "data");
    place("XDG_CONFIG_HOME", "config");
    place("XDG_CACHE_HOME", "cache");
    place("XDG_STATE_HOME", "state");
    place("XDG_RUNTIME_DIR", "runtime");
    place("TMPDIR", "tmp");
    setenv("XCTestConfigurationFilePath", home.c_str(), 1);
    unsetenv("QUILLMERE_HOME");

    testing::InitGoogleTest(&argumentCount, arguments);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const int result = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);
    return result;
}
