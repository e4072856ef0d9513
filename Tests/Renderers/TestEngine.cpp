// An engine for the tests: its first argument says how it behaves, further ones are that behaviour's own.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <numbers>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"

namespace {

using quillmere::JSONDocument;
using quillmere::WAVWriter;
namespace fs = std::filesystem;

struct Request {
    std::string line;
    std::string kind;
    std::string model;
    std::int64_t frames = 0;
    double dutyCycle = 1;
};

std::vector<std::string> arguments;
Request request;

/// The behaviour's own arguments, counted from 1.
const std::string& argument(std::size_t index) { return arguments.at(index); }

void say(std::string_view line) { std::cout << line << '\n' << std::flush; }

[[noreturn]] void sleepForever() {
    while (true) ::pause();
}

/// A process's state as its table says, such as 'T' for one that is stopped.
char stateOf(pid_t process) {
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), line);
    return line.at(line.rfind(')') + 2);
}

void ignorePoliteness() { ::signal(SIGTERM, SIG_IGN); }

void append(const fs::path& file, std::string_view text) {
    std::ofstream out(file, std::ios::app | std::ios::binary);
    out << text << std::flush;
}

void readRequest() {
    if (!std::getline(std::cin, request.line)) std::exit(9);
    const auto document = JSONDocument::parse(request.line);
    request.kind = document.root().member<std::string>("request");
    request.model = document.root().find("identity")->member<std::string>("model");
    request.frames = document.root().optionalMember<std::int64_t>("frames").value_or(0);
    request.dutyCycle = document.root().optionalMember<double>("dutyCycle").value_or(1);
}

/// A tone of 440 Hz.
std::int16_t sample(std::int64_t frame) {
    const double time = static_cast<double>(frame) / 48000;
    return static_cast<std::int16_t>(std::lround(8000 * std::sin(2 * std::numbers::pi * 440 * time)));
}

void writeFrames(WAVWriter& file, std::int64_t first, std::int64_t last, int channels = 2) {
    std::vector<std::int16_t> samples;
    for (auto frame = first; frame < last; ++frame) {
        for (int channel = 0; channel < channels; ++channel) samples.push_back(sample(frame));
    }
    file.write(samples);
}

void writeAudio(const fs::path& name, std::int64_t frames, int rate = 48000, int channels = 2) {
    WAVWriter file(name, rate, channels);
    writeFrames(file, 0, frames, channels);
    file.finish();
}

std::string secondsText() { return std::to_string(static_cast<double>(request.frames) / 48000); }

void sayResult(const std::string& file = "audio.wav", const std::string& more = {}) {
    say("result {\"file\":\"" + file + "\",\"seconds\":" + secondsText() + more + "}");
}

void renderWell(const std::string& more = {}) {
    writeAudio("audio.wav", request.frames);
    sayResult("audio.wav", more);
}

/// Two processes, one of them in a session of its own, that ignore everything polite.
void haveChildren(const std::function<void()>& each) {
    for (const bool leaves : {false, true}) {
        if (::fork() != 0) continue;
        if (leaves) {
            ::setsid();
            if (::fork() != 0) ::_exit(0);  // an orphan from here on
        }
        ignorePoliteness();
        each();
        sleepForever();
    }
}

/// Holds a shared lock on a file as long as the process lives, and says so by a byte in a fifo.
void liveVisibly(const fs::path& lock, const fs::path& fifo) {
    const int file = ::open(lock.c_str(), O_RDONLY | O_CREAT, 0600);
    if (file < 0 || ::flock(file, LOCK_SH) != 0) ::_exit(8);
    const int end = ::open(fifo.c_str(), O_WRONLY);
    if (end < 0 || ::write(end, "x", 1) != 1) ::_exit(8);
    ::close(end);
}

std::string statusLine(const std::string& key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with(key + ":")) return line.substr(line.find_last_of("\t ") + 1);
    }
    return "?";
}

/// Whether a set of signals from the status holds any but 32 and 33, which are the C library's own affair.
std::string signals(const std::string& key) {
    constexpr unsigned long long internal = 3ULL << 31;
    return (std::stoull(statusLine(key), nullptr, 16) & ~internal) == 0 ? "nothing" : "something";
}

void reportSelf() {
    std::string text = "blocked " + signals("SigBlk") + " ignored " + signals("SigIgn") + " open";
    DIR* folder = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(folder)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && std::stoi(name) != ::dirfd(folder)) text += " " + name;
    }
    const char* temporary = std::getenv("TMPDIR");
    text += fs::equivalent(temporary, ".") ? " temporary" : " elsewhere";
    text += " nice " + std::to_string(::getpriority(PRIO_PROCESS, 0));
    text += " group " + std::string(::getpgrp() == ::getpid() ? "own" : "other");
    std::cerr << text;
    std::exit(1);
}

using Behaviour = std::function<void()>;
const std::map<std::string, Behaviour, std::less<>> behaviours = {
    // The good ones.
    {"well", [] { renderWell(); }},
    {"whole",
     [] {
         say("text encoder");
         WAVWriter file("audio.wav", 48000, 2);
         for (int part = 1; part <= 4; ++part) {
             writeFrames(file, (part - 1) * request.frames / 4, part * request.frames / 4);
             file.flushHeader();
             say("sample " + std::to_string(part) + "/4");
             const auto there = static_cast<double>(part * request.frames / 4) / 48000;
             say("audio {\"file\":\"audio.wav\",\"seconds\":" + std::to_string(there) + "}");
             // Goes on when it is told that the report arrived.
             if (arguments.size() > 1) std::ifstream(argument(1)).get();
         }
         file.finish();
         sayResult("audio.wav", R"(,"seamDB":-41.5,"brightness":0.25,"makeupDB":1.5,"leadIn":0.125)");
     }},
    // The same length, but another piece: silence.
    {"rewrites",
     [] {
         WAVWriter file("audio.wav", 48000, 2);
         file.write(std::vector<std::int16_t>(static_cast<std::size_t>(request.frames) * 2));
         file.finish();
         sayResult();
     }},
    {"record",
     [] {
         append(argument(1), request.line + "\n" + fs::current_path().string());
         renderWell();
     }},
    {"says",
     [] {
         // Each further argument is a line.
         for (std::size_t index = 1; index < arguments.size(); ++index) say(argument(index));
         renderWell();
     }},
    {"leaves-temporary-files",
     [] {
         fs::create_directories("a/b/c");
         append("a/b/c/file", "text");
         fs::create_symlink("/", "a/root");
         renderWell();
     }},
    {"without-last-line-feed",
     [] {
         writeAudio("audio.wav", request.frames);
         std::cout << "result {\"file\":\"audio.wav\",\"seconds\":" << secondsText() << "}" << std::flush;
     }},
    // Everything in one piece.
    {"says-all-at-once",
     [] {
         writeAudio("audio.wav", request.frames);
         std::cout << "decoder\nresult {\"file\":\"audio.wav\",\"seconds\":" << secondsText() << "}\n" << std::flush;
     }},
    // Floods.
    {"garbage",
     [] {
         std::string noise;
         for (int index = 0; index < 100'000; ++index) noise += static_cast<char>(index * 7919 % 251);
         std::cout << noise << '\n';
         renderWell();
     }},
    {"long-line",
     [] {
         const std::string part(std::size_t{1} << 20, 'x');
         for (int index = 0; index < 100; ++index) std::cout << part;
         std::cout << '\n';
         renderWell();
     }},
    {"many-lines",
     [] {
         for (int index = 1; index <= 1'000'000; ++index) std::cout << "sample " << index << "/1000000\n";
         renderWell();
     }},
    {"many-partials",
     [] {
         writeAudio("part.wav", 4800);
         for (int index = 0; index < 100'000; ++index) std::cout << "audio {\"file\":\"part.wav\",\"seconds\":0.1}\n";
         renderWell();
     }},
    {"endless-garbage",
     [] {
         while (true) std::cout << "nothing that means anything\n";
     }},
    {"endless-line",
     [] {
         while (true) std::cout << "nothing that ever ends ";
     }},
    {"endless-errors",
     [] {
         while (true) std::cerr << "complaint\n";
     }},
    // BYTES in all, half of them complaints, the last ones a good result.
    {"says-bytes",
     [] {
         writeAudio("audio.wav", request.frames);
         const auto result = "\nresult {\"file\":\"audio.wav\",\"seconds\":" + secondsText() + "}\n";
         const std::string block(std::size_t{1} << 16, 'x');
         auto left = std::stoull(argument(1)) - result.size();
         const auto complaints = left / 2;
         const auto say = [&](std::ostream& out, unsigned long long count) {
             for (left -= count; count > 0;) {
                 const auto size = std::min<unsigned long long>(count, block.size());
                 out.write(block.data(), static_cast<std::streamsize>(size));
                 count -= size;
             }
         };
         say(std::cerr, complaints);
         say(std::cout, left);
         std::cout << result << std::flush;
     }},
    // Silence.
    {"silent", [] { sleepForever(); }},
    {"closes-output",
     [] {
         ::close(STDOUT_FILENO);
         sleepForever();
     }},
    {"result-and-no-end",
     [] {
         renderWell();
         sleepForever();
     }},
    // Ends.
    {"exits",
     [] {
         std::cerr << (arguments.size() > 2 ? argument(2) : "it did not work");
         std::exit(std::stoi(argument(1)));
     }},
    {"fails-after-result",
     [] {
         renderWell();
         std::exit(4);
     }},
    {"dies",
     [] {
         std::cerr << "last words";
         const int number = std::stoi(argument(1));
         ::signal(number, SIG_DFL);  // a sanitizer would catch some of them
         ::raise(number);
     }},
    {"bad-errors",
     [] {
         std::cerr << std::string(10'000, 'a') << "\xFF\xFE broken \x1B[31mred\x1B[0m\ttab \xC2\x85 end\n\n";
         std::exit(1);
     }},
    // Stubborn ones. Arguments: a file to lock, a fifo to announce oneself in.
    {"stubborn",
     [] {
         ignorePoliteness();
         liveVisibly(argument(1), argument(2));
         sleepForever();
     }},
    {"stubborn-family",
     [] {
         ignorePoliteness();
         haveChildren([] { liveVisibly(argument(1), argument(2)); });
         liveVisibly(argument(1), argument(2));
         sleepForever();
     }},
    {"orphans",
     [] {
         haveChildren([] { liveVisibly(argument(1), argument(2)); });
         std::ifstream(argument(3)).get();  // until both announced themselves
         renderWell();
     }},
    // Those that stop their supervisor.
    {"stops-supervisor",
     [] {
         ::kill(::getppid(), SIGSTOP);
         renderWell();
     }},
    {"stops-supervisor-and-stays",
     [] {
         ::kill(::getppid(), SIGSTOP);
         say("decoder");
         sleepForever();
     }},
    {"leaves-one-who-signals-the-supervisor",
     [] {
         // Again and again, from when the family is asked to end, which is after the host was told how the engine did.
         const pid_t supervisor = ::getppid();
         if (::fork() == 0) {
             sigset_t polite;
             sigemptyset(&polite);
             sigaddset(&polite, SIGTERM);
             ::alarm(60);  // whatever becomes of the test
             ::sigprocmask(SIG_BLOCK, &polite, nullptr);
             liveVisibly(argument(1), argument(2));
             append(argument(3), "x");
             int number = 0;
             ::sigwait(&polite, &number);
             while (::kill(supervisor, std::stoi(argument(4))) == 0) ::sched_yield();
             sleepForever();
         }
         std::ifstream(argument(3)).get();
         renderWell();
     }},
    {"polite",
     [] {
         // Leaves a note when it is asked to stop, which takes a moment.
         static std::string note = argument(1);
         ::signal(SIGTERM, [](int) {
             append(note, "asked");
             ::_exit(0);
         });
         say("decoder");
         sleepForever();
     }},
    {"polite-but-stopped",
     [] {
         static std::string note = argument(1);
         ::signal(SIGTERM, [](int) {
             append(note, "asked");
             ::_exit(0);
         });
         const pid_t engine = ::getpid();
         if (::fork() == 0) {
             ::signal(SIGTERM, SIG_DFL);
             while (stateOf(engine) != 'T') ::sched_yield();
             say("decoder");
             sleepForever();
         }
         ::raise(SIGSTOP);
         sleepForever();
     }},
    {"stops-at-end-of-input",
     [] {
         ignorePoliteness();
         say("decoder");
         std::string line;
         while (std::getline(std::cin, line)) {
         }
         append(argument(1), "input ended");
         // Not by `exit`: a leak check there waits for a process of its own, which the end of the family may take away.
         ::_exit(0);
     }},
    {"works",
     [] {
         // Works without a rest until it has used so much processor time, in milliseconds.
         append(argument(2), std::to_string(::getpid()) + "\n");
         const auto limit = std::stol(argument(1)) * (CLOCKS_PER_SEC / 1000);
         say("decoder");
         while (std::clock() < limit) {
         }
         renderWell();
     }},
    // Files.
    {"names",
     [] {
         // A result that names any file; the second argument is JSON text without its quotes.
         writeAudio("audio.wav", request.frames);
         sayResult(argument(1));
     }},
    {"names-partial",
     [] {
         say("audio {\"file\":\"" + argument(1) + "\",\"seconds\":1}");
         renderWell();
     }},
    {"links",
     [] {
         fs::create_symlink(argument(1), "audio.wav");
         sayResult();
     }},
    {"links-partial",
     [] {
         fs::create_symlink(argument(1), "part.wav");
         say("audio {\"file\":\"part.wav\",\"seconds\":0.1}");
         renderWell();
     }},
    {"hard-links",
     [] {
         fs::create_hard_link(argument(1), "audio.wav");
         sayResult();
     }},
    {"makes-fifo",
     [] {
         ::mkfifo("audio.wav", 0600);
         sayResult();
     }},
    {"makes-folder",
     [] {
         fs::create_directory("audio.wav");
         sayResult();
     }},
    {"replaces-folder",
     [] {
         // Puts a link to another folder where its working folder was.
         renderWell();
         const auto here = fs::current_path();
         fs::rename(here, here.string() + "-away");
         fs::create_symlink(argument(1), here);
     }},
    {"removes-folder",
     [] {
         renderWell();
         fs::remove_all(fs::current_path());
     }},
    // Audio.
    {"length",
     [] {
         writeAudio("audio.wav", request.frames + std::stol(argument(1)));
         sayResult();
     }},
    {"says-seconds",
     [] {
         writeAudio("audio.wav", request.frames);
         say("result {\"file\":\"audio.wav\",\"seconds\":" + argument(1) + "}");
     }},
    {"format",
     [] {
         writeAudio("audio.wav", request.frames, std::stoi(argument(1)), std::stoi(argument(2)));
         sayResult();
     }},
    {"no-audio",
     [] {
         append("audio.wav", "this is a text");
         sayResult();
     }},
    {"cut",
     [] {
         writeAudio("audio.wav", request.frames);
         fs::resize_file("audio.wav", fs::file_size("audio.wav") - static_cast<std::uintmax_t>(std::stol(argument(1))));
         sayResult();
     }},
    {"padded",
     [] {
         writeAudio("audio.wav", request.frames);
         fs::resize_file("audio.wav", fs::file_size("audio.wav") + (std::uintmax_t{1} << 40));  // without blocks
         sayResult();
     }},
    {"more", [] { renderWell(argument(1)); }},
    // What it was given.
    {"self", [] { reportSelf(); }},
};

}  // namespace

int main(int count, char** values) {
    arguments.assign(values + 1, values + count);
    std::ios::sync_with_stdio(false);
    const auto behaviour = behaviours.find(arguments.at(0));
    // The request is not read by these.
    if (arguments[0] == "deaf") {
        ::close(STDIN_FILENO);
        std::cerr << "heard nothing";
        return 5;
    }
    if (arguments[0] == "deaf-and-well") {
        if (fs::current_path() == "/") return 1;  // only asked for the build
        request.frames = std::stol(argument(1));
        renderWell();
        return 0;
    }
    readRequest();
    if (request.kind == "build") {
        if (arguments[0] == "build") {
            // Arguments: a file that counts the questions, then how to answer.
            append(argument(1), request.model + "\n");
            if (argument(2) == "fails") return 1;
            if (argument(2) == "hangs") sleepForever();
            say(argument(2));
            return 0;
        }
        say(R"(result {"engineBuild":"test-engine 1"})");
        return 0;
    }
    if (arguments[0] == "build") {
        renderWell();
        return 0;
    }
    if (behaviour == behaviours.end()) return 10;
    try {
        behaviour->second();
    } catch (const std::exception& error) {
        std::cerr << "test engine: " << error.what();
        return 11;
    }
    return 0;
}
