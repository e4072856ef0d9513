#include "QuillmereKit/Platform/ResourceBundle.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

struct ResourceBundleTests : testing::Test {
    TemporaryFolder folder;
    ResourceBundle bundle{folder.path()};
};

TEST_F(ResourceBundleTests, FindsAFileByNameAndExtension) {
    const auto seeds = folder.putFile("seeds.json", "[]");
    const auto inner = folder.putFile("Loops/seeds.json", "[]");
    const auto plain = folder.putFile("LICENSE", "text");
    const auto dotted = folder.putFile("a.b.m4a", "");

    EXPECT_EQ(bundle.resource("seeds", "json"), seeds);
    EXPECT_EQ(bundle.resource("seeds", "json", "Loops"), inner);
    EXPECT_EQ(bundle.resource("LICENSE", ""), plain);
    EXPECT_EQ(bundle.resource("a.b", "m4a"), dotted);
}

TEST_F(ResourceBundleTests, WhatIsNotThereIsAbsent) {
    folder.putFile("seeds.json", "[]");

    EXPECT_EQ(bundle.resource("seeds", "json", "Loops"), std::nullopt);
    EXPECT_EQ(bundle.resource("seeds", "m4a"), std::nullopt);
    EXPECT_EQ(bundle.resource("seeds", ""), std::nullopt);
    EXPECT_EQ(bundle.resource("", "json"), std::nullopt);
    EXPECT_EQ(ResourceBundle(folder.path() / "missing").resource("seeds", "json"), std::nullopt);
}

TEST_F(ResourceBundleTests, OnlyRegularFilesAreResources) {
    std::filesystem::create_directory(folder.path() / "folder.json");
    ASSERT_EQ(::mkfifo((folder.path() / "fifo.json").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", folder.path() / "dangling.json");

    EXPECT_EQ(bundle.resource("folder", "json"), std::nullopt);
    EXPECT_EQ(bundle.resource("fifo", "json"), std::nullopt);
    EXPECT_EQ(bundle.resource("dangling", "json"), std::nullopt);
}

TEST_F(ResourceBundleTests, ALinkIsTheFileBehindIt) {
    const auto file = folder.putFile("store/1234-seeds.json", "[]");
    std::filesystem::create_symlink(file, folder.path() / "seeds.json");

    EXPECT_EQ(bundle.resource("seeds", "json"), std::filesystem::canonical(file));
}

TEST_F(ResourceBundleTests, NamesDoNotLeadOutOfTheBundle) {
    folder.putFile("secret.json", "[]");
    folder.putFile("bundle/inner/file.json", "[]");
    const ResourceBundle inner(folder.path() / "bundle");

    EXPECT_EQ(inner.resource("../secret", "json"), std::nullopt);
    EXPECT_EQ(inner.resource("secret", "json", ".."), std::nullopt);
    EXPECT_EQ(inner.resource("inner/file", "json"), std::nullopt);
    EXPECT_EQ(inner.resource("file", "json", "../bundle/inner"), std::nullopt);
    EXPECT_EQ(inner.resource(std::string_view("file\0", 5), "json", "inner"), std::nullopt);
    EXPECT_TRUE(inner.resource("file", "json", "inner"));
}

TEST_F(ResourceBundleTests, TheEnvironmentNamesTheBundlesFolders) {
    ::setenv("QUILLMERE_RESOURCES", folder.path().c_str(), 1);
    ::setenv("QUILLMERE_KIT_RESOURCES", (folder.path() / "kit").c_str(), 1);
    const auto application = ResourceBundle::main();
    const auto library = ResourceBundle::library();
    ::unsetenv("QUILLMERE_RESOURCES");
    ::unsetenv("QUILLMERE_KIT_RESOURCES");

    EXPECT_EQ(application.folder(), folder.path());
    EXPECT_EQ(library.folder(), folder.path() / "kit");
}

TEST_F(ResourceBundleTests, WithoutAnInstallationTheApplicationsResourcesLieBesideTheProgram) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");

    EXPECT_EQ(ResourceBundle::main().folder(), program.parent_path() / "Resources");
}

TEST_F(ResourceBundleTests, TheLibrarysResourcesAreFoundInTheSourceTree) {
    EXPECT_TRUE(ResourceBundle::library().resource("personas", "json"));
}

}  // namespace
}  // namespace quillmere::test
