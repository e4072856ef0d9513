#include <fcntl.h>
#include <simdjson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "Benchmarks/Comparison.hpp"
#include "Benchmarks/SampleLibrary.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"

// The loop library: opening, adding, pools, look-ups, and what grows with the number of pieces.

namespace quillmere::benchmarks {
namespace {

namespace fs = std::filesystem;

std::string textOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void check(bool isTrue, const char* what) {
    if (!isTrue) throw std::system_error(errno, std::generic_category(), what);
}

// Kept open for whoever only asks.
std::map<std::size_t, std::shared_ptr<LoopStore>> openedLibraries;

const std::shared_ptr<LoopStore>& openedLibrary(std::size_t count) {
    auto& store = openedLibraries[count];
    if (!store) store = openLibrary(sampleLibrary(count));
    return store;
}

// MARK: opening

Body opening(std::size_t count) {
    return [=](benchmark::State& state) {
        openedLibraries.clear();  // a store on a folder that is open already would only share it
        const auto& folder = sampleLibrary(count);
        const auto open = [&] { check(openLibrary(folder)->count() == count, "a piece is missing"); };
        open();  // The first opening of a process also waits for fresh memory: it is not measured.
        for (auto _ : state) open();
    };
}

// Parses the manifest into a document and asks for every file once.
Body parsingAndChecking(std::size_t count) {
    return [=](benchmark::State& state) {
        const auto& folder = sampleLibrary(count);
        std::vector<std::string> files;
        for (std::size_t i = 0; i < count; ++i) files.push_back(samplePiece(folder, i).url.path().string());
        const auto parseAndCheck = [&] {
            simdjson::dom::parser parser;
            const simdjson::padded_string text = simdjson::padded_string::load((folder / "manifest.json").string());
            check(parser.parse(text).get_array().size() == count, "an entry is missing");
            for (const auto& file : files) check(::access(file.c_str(), F_OK) == 0, "a file is missing");
        };
        parseAndCheck();
        for (auto _ : state) parseAndCheck();
    };
}

// MARK: adding

// Pieces that are not in the library yet, with durable audio.
std::vector<LoopArtifact> newPieces(const fs::path& folder, std::size_t first, std::size_t count) {
    std::vector<LoopArtifact> pieces;
    for (std::size_t i = 0; i < count; ++i) {
        pieces.push_back(samplePiece(folder, first + i));
        writeDurably(pieces.back().url.path(), "RIFF");
    }
    return pieces;
}

Body adding(std::size_t count) {
    return [=](benchmark::State& state) {
        const auto& folder = changingLibrary(count);
        const auto store = openLibrary(folder);
        auto pieces = newPieces(folder, count, static_cast<std::size_t>(state.max_iterations) + 1);
        store->add(std::move(pieces.back()));
        std::size_t next = 0;
        for (auto _ : state) store->add(std::move(pieces[next++]));
        check(!store->lastSaveError(), "a save failed");
    };
}

// One durable write of as many bytes: temporary file, fsync, rename, fsync of the folder.
Body writingDurably(std::size_t count) {
    return [=](benchmark::State& state) {
        const auto& folder = changingLibrary(count);
        const auto text = textOf(folder / "manifest.json");
        const auto temporary = (folder / "temporary").string();
        const auto name = (folder / "manifest.json").string();
        for (auto _ : state) {
            const int file = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            check(file >= 0, "open");
            for (std::size_t done = 0; done < text.size();) {
                const auto written = ::write(file, text.data() + done, text.size() - done);
                check(written > 0, "write");
                done += static_cast<std::size_t>(written);
            }
            check(::fsync(file) == 0 && ::close(file) == 0, "fsync");
            check(::rename(temporary.c_str(), name.c_str()) == 0, "rename");
            const int place = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            check(place >= 0 && ::fsync(place) == 0 && ::close(place) == 0, "fsync of the folder");
        }
    };
}

// MARK: asking

Body playbackPool(std::size_t count) {
    return [=](benchmark::State& state) {
        const auto& store = openedLibrary(count);
        for (auto _ : state) {
            auto pool = store->playbackPool(sampleMood(0), std::nullopt, {});
            check(pool.size() == std::min(count, piecesPerMood), "a piece is missing");
            benchmark::DoNotOptimize(pool);
        }
    };
}

Body copyingThePool(std::size_t count) {
    return [=](benchmark::State& state) {
        const auto& store = openedLibrary(count);
        const auto pool = store->pool(sampleMood(0));
        for (auto _ : state) {
            auto copy = pool;
            benchmark::DoNotOptimize(copy);
        }
    };
}

template <class Ask>
Body asking(std::size_t count, Ask ask) {
    return [=](benchmark::State& state) {
        const auto& folder = sampleLibrary(count);
        const auto& store = openedLibrary(count);
        std::vector<LoopIdentity> identities;
        for (std::size_t i = 0; i < 1000; ++i) identities.push_back(samplePiece(folder, i * count / 1000).identity);
        std::size_t next = 0;
        for (auto _ : state) {
            ask(*store, identities[next]);
            next = (next + 1) % identities.size();
        }
    };
}

Body fingerprints(std::size_t count) {
    return asking(count, [](const LoopStore&, const LoopIdentity& identity) {
        auto fingerprint = identity.fingerprint();
        benchmark::DoNotOptimize(fingerprint);
    });
}

Body finding(std::size_t count) {
    return asking(count, [](const LoopStore& store, const LoopIdentity& identity) {
        auto artifact = store.artifact(identity);
        benchmark::DoNotOptimize(artifact);
    });
}

Body containing(std::size_t count) {
    return asking(count, [](const LoopStore& store, const LoopIdentity& identity) {
        bool contains = store.contains(identity);
        benchmark::DoNotOptimize(contains);
    });
}

Body migrationCandidates(std::size_t count) {
    return [=](benchmark::State& state) {
        const auto& store = openedLibrary(count);
        for (auto _ : state) benchmark::DoNotOptimize(store->losslessMigrationCandidates());
    };
}

// Each round opens a fresh copy and prunes a tenth of it.
Body pruning(std::size_t count) {
    return [=](benchmark::State& state) {
        for (auto _ : state) {
            state.PauseTiming();
            const auto& folder = changingLibrary(count);
            auto store = openLibrary(folder);
            std::set<std::string> keeping;
            std::size_t index = 0;
            for (const auto& piece : store->all()) {
                if (++index % 10 != 0) keeping.insert(piece.id());
            }
            state.ResumeTiming();
            check(store->prune(keeping) == static_cast<std::int64_t>(count / 10), "a piece stayed");
            state.PauseTiming();
            store.reset();
            state.ResumeTiming();
        }
    };
}

bool registerAll() {
    const std::string ten = ", 10,000 pieces";
    const std::string hundred = ", 100,000 pieces";
    compare("Opening" + ten, opening(10'000), parsingAndChecking(10'000), benchmark::kMillisecond);
    compare("Opening" + hundred, opening(100'000), parsingAndChecking(100'000), benchmark::kMillisecond);
    compare("add" + ten, adding(10'000), writingDurably(10'000), benchmark::kMillisecond);
    compare("playbackPool, 500" + ten, playbackPool(10'000), copyingThePool(10'000));
    compare("playbackPool, 500" + hundred, playbackPool(100'000), copyingThePool(100'000));
    compare("artifact(for:)" + hundred, finding(100'000), fingerprints(100'000), benchmark::kNanosecond);
    compare("contains" + hundred, containing(100'000), fingerprints(100'000), benchmark::kNanosecond);
    for (const std::size_t count : {100, 1'000, 10'000, 100'000}) {
        const auto growth = [&](const char* what) {
            return "growth/" + std::string(what) + "/" + std::to_string(count);
        };
        measure(growth("opening"), opening(count));
        measure(growth("add"), adding(count));
        measure(growth("playbackPool"), playbackPool(count));
        measure(growth("prune a tenth"), pruning(count));
        measure(growth("migration candidates"), migrationCandidates(count));
    }
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
