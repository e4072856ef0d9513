#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace quillmere::benchmarks {

/// One side of a comparison: an ordinary benchmark loop.
using Body = std::function<void(benchmark::State&)>;

/// Registers what is measured and its peer, to be run in turn in one process; with QUILLMERE_BENCHMARK_PEERS_FIRST in
/// the environment, the peer first. `scripts/bench` finds the two by their names, "subject/ours" and "subject/peer",
/// and compares them. Real time counts.
bool compare(const std::string& subject, Body ours, Body peer, benchmark::TimeUnit unit = benchmark::kMicrosecond);

/// Registers something without a peer, "subject/ours".
bool measure(const std::string& subject, Body ours, benchmark::TimeUnit unit = benchmark::kMicrosecond);

}  // namespace quillmere::benchmarks
