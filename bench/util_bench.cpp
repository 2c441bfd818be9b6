// Costs of the path comparisons on the library's hot paths: every metadata update normalises the
// item's path and compares it with the container's, so these run once per item per update.

#include <benchmark/benchmark.h>

#include <string>

#include "qn/util/PathNormalization.h"

namespace {

const std::string kAsciiPath =
    "/home/user/.local/share/QNiCloud/Mobile Documents/Documents/Report.txt";
// The same path with a decomposed "é", as some file systems report names.
const std::string kUnicodePath =
    "/home/user/.local/share/QNiCloud/Mobile Documents/Documents/Re\u0301sume\u0301.txt";
const std::string kUnicodePathOtherCase =
    "/home/user/.local/share/QNiCloud/Mobile Documents/DOCUMENTS/R\u00c9SUM\u00c9.TXT";

void BM_NormalizeAscii(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::stringByNormalizingPath(kAsciiPath));
    }
}
BENCHMARK(BM_NormalizeAscii);

void BM_NormalizeAsciiUnclean(benchmark::State& state) {
    const std::string path =
        "/home/user/.local/share/QNiCloud//Mobile Documents/./Documents/Report.txt/";
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::stringByNormalizingPath(path));
    }
}
BENCHMARK(BM_NormalizeAsciiUnclean);

void BM_NormalizeUnicode(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::stringByNormalizingPath(kUnicodePath));
    }
}
BENCHMARK(BM_NormalizeUnicode);

void BM_NormalizeUnicodeAlreadyComposed(benchmark::State& state) {
    const std::string path = qn::stringByNormalizingPath(kUnicodePath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::stringByNormalizingPath(path));
    }
}
BENCHMARK(BM_NormalizeUnicodeAlreadyComposed);

void BM_IsEqualToPathAscii(benchmark::State& state) {
    const std::string other =
        "/home/user/.local/share/QNiCloud/Mobile Documents/documents/REPORT.txt";
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::isEqualToPath(kAsciiPath, other));
    }
}
BENCHMARK(BM_IsEqualToPathAscii);

void BM_IsEqualToPathUnicode(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::isEqualToPath(kUnicodePath, kUnicodePathOtherCase));
    }
}
BENCHMARK(BM_IsEqualToPathUnicode);

void BM_LowercaseNFCUnicode(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(qn::lowercaseNFC(kUnicodePath));
    }
}
BENCHMARK(BM_LowercaseNFCUnicode);

}  // namespace
