#include "QuillmereKit/Platform/UserFolders.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere::UserFolders {
namespace {

using std::filesystem::path;

constexpr const char* applicationName = "Quillmere";

std::mutex movedHomeMutex;
std::optional<path> movedHome;  // guarded by movedHomeMutex

/// The variable's value, or nothing if it is unset or empty.
std::optional<path> variable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return path(value);
}

std::optional<path> absoluteVariable(const char* name) {
    auto value = variable(name);
    if (value && value->is_relative()) value.reset();
    return value;
}

std::optional<path> homeFromPasswd() {
    std::vector<char> buffer(1024);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        const int error = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
        constexpr std::size_t largest = 1 << 20;
        if (error == ERANGE && buffer.size() < largest) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (error == EINTR) continue;
        if (error != 0 || found == nullptr || found->pw_dir == nullptr) return std::nullopt;
        path home = found->pw_dir;
        if (home.is_relative()) return std::nullopt;
        return home;
    }
}

/// The folder that everything was moved to, if it was.
std::optional<path> moved() {
    {
        const std::lock_guard lock(movedHomeMutex);
        if (movedHome) return movedHome;
    }
    const auto home = variable("QUILLMERE_HOME");
    if (!home) return std::nullopt;
    std::error_code error;
    auto absolute = std::filesystem::absolute(*home, error);
    return error ? *home : absolute;
}

std::optional<path> applicationFolder(const char* baseVariable, const char* baseBelowHome) {
    if (auto folder = moved()) return folder;
    if (const auto base = absoluteVariable(baseVariable)) return *base / applicationName;
    auto home = absoluteVariable("HOME");
    if (!home) home = homeFromPasswd();
    if (!home) return std::nullopt;
    return *home / baseBelowHome / applicationName;
}

}  // namespace

std::optional<path> applicationData() { return applicationFolder("XDG_DATA_HOME", ".local/share"); }

std::optional<path> configuration() { return applicationFolder("XDG_CONFIG_HOME", ".config"); }

path temporary() { return absoluteVariable("TMPDIR").value_or("/tmp"); }

void moveTo(const path& home) {
    precondition(!home.empty(), "The application's folder must have a name.");
    auto absolute = std::filesystem::absolute(home);
    const std::lock_guard lock(movedHomeMutex);
    movedHome = std::move(absolute);
}

bool isMoved() { return moved().has_value(); }

bool isAutomatedHarness() noexcept { return std::getenv("XCTestConfigurationFilePath") != nullptr; }

}  // namespace quillmere::UserFolders
