// The FFT kernel against FFTW's single-precision in-place complex transform: time per
// transform and RMS error against a long-double DFT of the same input.
#include "fft/FftKernel.h"

#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

const std::vector<int> kLengths = {256, 1000, 1024, 2048, 4000, 4096, 6000, 7951, 8192, 10000, 16384};

// Transforms timed back to back before the input is restored; values grow by sqrt(n) each
// time, and 8 passes stay far from float overflow.
constexpr int kBatch = 8;

struct Input {
    std::vector<float> re, im;
};

Input inputFor(int n)
{
    std::mt19937 gen(12345u + n);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Input in{std::vector<float>(n), std::vector<float>(n)};
    for (int i = 0; i < n; ++i) {
        in.re[i] = dist(gen);
        in.im[i] = dist(gen);
    }
    return in;
}

// Forward DFT, exp(-2*pi*i*j*k/n), summed in long double.
std::vector<long double> referenceFor(const Input& in)
{
    const int n = static_cast<int>(in.re.size());
    const long double pi = 3.141592653589793238462643383279502884L;
    std::vector<long double> wr(n), wi(n), out(2 * n);
    for (int t = 0; t < n; ++t) {
        wr[t] = std::cos(2.0L * pi * t / n);
        wi[t] = -std::sin(2.0L * pi * t / n);
    }
    for (int k = 0; k < n; ++k) {
        long double sr = 0, si = 0;
        long long t = 0;
        for (int j = 0; j < n; ++j) {
            sr += in.re[j] * wr[t] - in.im[j] * wi[t];
            si += in.re[j] * wi[t] + in.im[j] * wr[t];
            t += k;
            if (t >= n) t -= n;
        }
        out[2 * k] = sr;
        out[2 * k + 1] = si;
    }
    return out;
}

// RMS of the error over RMS of the exact result.
double relativeRms(const float* re, const float* im, std::ptrdiff_t stride,
                   const std::vector<long double>& ref)
{
    long double err = 0, norm = 0;
    const std::size_t n = ref.size() / 2;
    for (std::size_t k = 0; k < n; ++k) {
        const long double dr = re[k * stride] - ref[2 * k], di = im[k * stride] - ref[2 * k + 1];
        err += dr * dr + di * di;
        norm += ref[2 * k] * ref[2 * k] + ref[2 * k + 1] * ref[2 * k + 1];
    }
    return static_cast<double>(std::sqrt(err / norm));
}

struct Row {
    double oursUs = 0, estimateUs = 0, measureUs = 0;
    double oursRms = 0, estimateRms = 0, measureRms = 0;
};
std::map<int, Row> g_rows;

void BM_Kernel(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const Input in = inputFor(n);
    Input work = in;
    FftWorkspace ws;
    for (auto _ : state) {
        work = in;
        const auto start = std::chrono::steady_clock::now();
        for (int b = 0; b < kBatch; ++b)
            benchmark::DoNotOptimize(FftN(&ws, n, nullptr, work.re.data(), work.im.data(), -1, 0.0));
        benchmark::ClobberMemory();
        const std::chrono::duration<double> t = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(t.count() / kBatch);
    }
    FftFreeWorkspace(&ws);
}

template <unsigned Flags>
void BM_Fftw(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const Input in = inputFor(n);
    fftwf_complex* data = fftwf_alloc_complex(n);
    fftwf_plan plan = fftwf_plan_dft_1d(n, data, data, FFTW_FORWARD, Flags);
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            data[i][0] = in.re[i];
            data[i][1] = in.im[i];
        }
        const auto start = std::chrono::steady_clock::now();
        for (int b = 0; b < kBatch; ++b) fftwf_execute(plan);
        benchmark::ClobberMemory();
        const std::chrono::duration<double> t = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(t.count() / kBatch);
    }
    fftwf_destroy_plan(plan);
    fftwf_free(data);
}

void measureErrors()
{
    for (const int n : kLengths) {
        const Input in = inputFor(n);
        const std::vector<long double> ref = referenceFor(in);
        Row& row = g_rows[n];

        Input ours = in;
        FftWorkspace ws;
        FftN(&ws, n, nullptr, ours.re.data(), ours.im.data(), -1, 0.0);
        FftFreeWorkspace(&ws);
        row.oursRms = relativeRms(ours.re.data(), ours.im.data(), 1, ref);

        fftwf_complex* data = fftwf_alloc_complex(n);
        for (const unsigned flags : {FFTW_ESTIMATE, FFTW_MEASURE}) {
            fftwf_plan plan = fftwf_plan_dft_1d(n, data, data, FFTW_FORWARD, flags);
            for (int i = 0; i < n; ++i) {
                data[i][0] = in.re[i];
                data[i][1] = in.im[i];
            }
            fftwf_execute(plan);
            const double rms = relativeRms(&data[0][0], &data[0][1], 2, ref);
            (flags == FFTW_ESTIMATE ? row.estimateRms : row.measureRms) = rms;
            fftwf_destroy_plan(plan);
        }
        fftwf_free(data);
    }
}

// Keeps the per-transform times for the closing table: the best repetition, since other
// work on the machine only ever adds time.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration) continue;
            const std::string name = r.benchmark_name();
            const int n = std::stoi(name.substr(name.find('/') + 1));
            const double us = r.GetAdjustedRealTime() * 1e6 /
                              benchmark::GetTimeUnitMultiplier(r.time_unit);
            Row& row = g_rows[n];
            double* slot = name.rfind("Kernel", 0) == 0         ? &row.oursUs
                           : name.rfind("FftwEstimate", 0) == 0 ? &row.estimateUs
                                                                : &row.measureUs;
            if (*slot <= 0 || us < *slot) *slot = us;
        }
    }
};

void printTable()
{
    std::printf("\n%7s %10s %12s %11s %7s %10s %12s %12s\n", "length", "ours us", "ESTIMATE us",
                "MEASURE us", "ratio", "our RMS", "ESTIMATE RMS", "MEASURE RMS");
    double logSum = 0, worstRatio = 0, worstRms = 0;
    int rows = 0;
    for (const auto& [n, r] : g_rows) {
        if (r.oursUs <= 0 || r.estimateUs <= 0) continue;
        const double ratio = r.oursUs / r.estimateUs;
        logSum += std::log(ratio);
        ++rows;
        worstRatio = std::max(worstRatio, ratio);
        worstRms = std::max(worstRms, r.oursRms / r.estimateRms);
        std::printf("%7d %10.2f %12.2f %11.2f %7.2f %10.3g %12.3g %12.3g\n", n, r.oursUs,
                    r.estimateUs, r.measureUs, ratio, r.oursRms, r.estimateRms, r.measureRms);
    }
    if (rows == 0) return;
    const double geo = std::exp(logSum / rows);
    std::printf("\ngeometric mean of ratio to FFTW_ESTIMATE: %.2f (target <= 1.5)\n", geo);
    std::printf("worst ratio: %.2f (target <= 3)\n", worstRatio);
    std::printf("worst RMS relative to FFTW_ESTIMATE: %.2f (target <= 2)\n", worstRms);
}

void registerAll()
{
    for (const int n : kLengths) {
        benchmark::RegisterBenchmark("Kernel", BM_Kernel)->Arg(n)->UseManualTime();
        benchmark::RegisterBenchmark("FftwEstimate", BM_Fftw<FFTW_ESTIMATE>)->Arg(n)->UseManualTime();
        benchmark::RegisterBenchmark("FftwMeasure", BM_Fftw<FFTW_MEASURE>)->Arg(n)->UseManualTime();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // Three repetitions unless the command line says otherwise (later flags win).
    std::vector<char*> args(argv, argv + argc);
    static char repetitions[] = "--benchmark_repetitions=3";
    args.insert(args.begin() + 1, repetitions);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    registerAll();
    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::fprintf(stderr, "computing long-double references...\n");
    measureErrors();
    printTable();
    return 0;
}
