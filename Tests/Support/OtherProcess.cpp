#include "Tests/Support/OtherProcess.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "QuillmereKit/Platform/FolderLock.hpp"

namespace quillmere::test {

OtherProcess::OtherProcess(const std::filesystem::path& lockFile) {
    std::array<int, 2> ready{};
    std::array<int, 2> lifeline{};
    if (pipe2(ready.data(), O_CLOEXEC) != 0 || pipe2(lifeline.data(), O_CLOEXEC) != 0) std::abort();
    process_ = fork();
    if (process_ == 0) {
        close(lifeline[1]);
        const auto lock = FolderLock::tryAcquire(lockFile);
        char byte = lock ? 'y' : 'n';
        if (write(ready[1], &byte, 1) == 1) static_cast<void>(read(lifeline[0], &byte, 1));
        _exit(0);
    }
    close(lifeline[0]);
    close(ready[1]);
    lifeline_ = lifeline[1];
    char answer = 'n';
    if (process_ < 0 || read(ready[0], &answer, 1) != 1 || answer != 'y')
        ADD_FAILURE() << "no lock in the other process";
    close(ready[0]);
}

OtherProcess::~OtherProcess() {
    close(lifeline_);
    waitpid(process_, nullptr, 0);
}

}  // namespace quillmere::test
