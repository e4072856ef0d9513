#include "Benchmarks/Comparison.hpp"

#include <cstdlib>
#include <utility>

namespace quillmere::benchmarks {
namespace {

void add(const std::string& name, Body body, benchmark::TimeUnit unit) {
    benchmark::RegisterBenchmark(name.c_str(), std::move(body))->Unit(unit)->UseRealTime();
}

}  // namespace

bool measure(const std::string& subject, Body ours, benchmark::TimeUnit unit) {
    add(subject + "/ours", std::move(ours), unit);
    return true;
}

bool compare(const std::string& subject, Body ours, Body peer, benchmark::TimeUnit unit) {
    const bool isPeerFirst = std::getenv("QUILLMERE_BENCHMARK_PEERS_FIRST") != nullptr;
    if (isPeerFirst) add(subject + "/peer", peer, unit);
    add(subject + "/ours", std::move(ours), unit);
    if (!isPeerFirst) add(subject + "/peer", std::move(peer), unit);
    return true;
}

}  // namespace quillmere::benchmarks
