#pragma once

#include <filesystem>

namespace quillmere::test {

/// Another process that holds the lock of a folder as long as this object lives.
class OtherProcess {
public:
    explicit OtherProcess(const std::filesystem::path& lockFile);
    ~OtherProcess();
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    [[nodiscard]] int id() const noexcept { return process_; }

private:
    int process_ = -1;
    int lifeline_ = -1;
};

}  // namespace quillmere::test
