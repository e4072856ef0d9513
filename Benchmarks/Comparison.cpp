#include "Benchmarks/Comparison.hpp"

#include <utility>

namespace quillmere::benchmarks {

bool measure(const std::string& subject, Body ours, benchmark::TimeUnit unit) {
    benchmark::RegisterBenchmark((subject + "/ours").c_str(), std::move(ours))->Unit(unit)->UseRealTime();
    return true;
}

bool compare(const std::string& subject, Body ours, Body peer, benchmark::TimeUnit unit) {
    measure(subject, std::move(ours), unit);
    benchmark::RegisterBenchmark((subject + "/peer").c_str(), std::move(peer))->Unit(unit)->UseRealTime();
    return true;
}

}  // namespace quillmere::benchmarks
