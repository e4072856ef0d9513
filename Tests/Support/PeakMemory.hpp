#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <functional>

namespace quillmere::test {

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr std::size_t gibibyte = std::size_t{1} << 30;

/// How much more memory a child process takes for an action than for none, in bytes, at its peak. The action says that
/// it went wrong by ending the process with another status than 0.
inline std::size_t peakOf(const std::function<void()>& action) {
    const auto measured = [](const std::function<void()>& work) {
        const pid_t child = ::fork();
        if (child == 0) {
            work();
            ::_exit(0);
        }
        int status = -1;
        rusage usage{};
        EXPECT_EQ(::wait4(child, &status, 0, &usage), child);
        EXPECT_EQ(status, 0) << "the child process did not end well";
        return static_cast<std::size_t>(usage.ru_maxrss) * 1024;
    };
    const auto nothing = measured([] {});
    const auto all = measured(action);
    return all > nothing ? all - nothing : 0;
}

}  // namespace quillmere::test
