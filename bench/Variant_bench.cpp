// Text conversion of a variant against the C library calls whose texts and values it
// reproduces, in the same run: an int to text and back, and a double to text.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <ostrelled/Variant.h>

namespace {

// Values of every length from one digit to ten, both signs, so that neither side
// gains from a branch predictor that has learnt one length.
const std::vector<int>& integers() {
  static const std::vector<int> values = [] {
    std::vector<int> out;
    unsigned int seed = 12345;
    for (int i = 0; i < 1024; ++i) {
      seed = seed * 1103515245u + 12345u;
      const int digits = 1 + static_cast<int>(seed >> 16) % 10;
      long long value = static_cast<long long>(seed >> 3) % 1000000000LL;
      for (int d = digits; d < 10; ++d) value /= 10;
      out.push_back(static_cast<int>(i % 2 == 0 ? value : -value));
    }
    return out;
  }();
  return values;
}

void BM_VariantIntTextRoundTrip(benchmark::State& state) {
  const std::vector<int>& values = integers();
  size_t i = 0;
  TVARIANT var;
  variant_init(var);
  for (auto _ : state) {
    variant_set_int(var, values[i++ & 1023], true);
    variant_change_type(var, TVT_BSTR);
    variant_change_type(var, TVT_INT);
    benchmark::DoNotOptimize(var.intVal);
  }
  variant_clear(var);
}

void BM_SnprintfStrtolRoundTrip(benchmark::State& state) {
  const std::vector<int>& values = integers();
  size_t i = 0;
  char text[32];
  for (auto _ : state) {
    std::snprintf(text, sizeof text, "%d", values[i++ & 1023]);
    benchmark::DoNotOptimize(text);
    int value = static_cast<int>(std::strtol(text, nullptr, 0));
    benchmark::DoNotOptimize(value);
  }
}

void BM_VariantDoubleText(benchmark::State& state) {
  TVARIANT var;
  variant_init(var);
  double value = 0.125;
  for (auto _ : state) {
    variant_set_double(var, value, true);
    variant_change_type(var, TVT_BSTR);
    benchmark::DoNotOptimize(var.bstrVal);
    value += 1.0;
  }
  variant_clear(var);
}

void BM_SnprintfDouble(benchmark::State& state) {
  char text[400];
  double value = 0.125;
  for (auto _ : state) {
    std::snprintf(text, sizeof text, "%f", value);
    benchmark::DoNotOptimize(text);
    value += 1.0;
  }
}

BENCHMARK(BM_VariantIntTextRoundTrip);
BENCHMARK(BM_SnprintfStrtolRoundTrip);
BENCHMARK(BM_VariantDoubleText);
BENCHMARK(BM_SnprintfDouble);

}  // namespace

BENCHMARK_MAIN();
