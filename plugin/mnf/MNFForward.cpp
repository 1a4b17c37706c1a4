// Forward run: noise from neighbour differences, noise whitening, rotation of the whitened data.
#include "OrvUtility/Mult.h"
#include "frame/RasterAccess.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFPipeline.h"
#include "mnf/MNFKernels.h"
#include "mnf/MNFPixelKernels.h"
#include "mnf/MNFRun.h"
#include "mnf/MNFStatsFile.h"

#include <QFile>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

using OrvDataSource::RasterDataset;
using OrvDataSource::PDT_Float32;
using Matrix = std::vector<double>;

struct MNFForwardRun {
    OrvUtility::_ptr_t<RasterDataset> in, out;
    MNFSelection sel;
    int n = 0, width = 0, height = 0, imageHeight = 0, type = 0, rowsPerBlock = 1;
    double pixels = 0; // N, every pixel of the window
    const ProgressSpan* progress = nullptr;
    long long unitsDone = 0, unitsTotal = 0;
    Matrix transform, means; // T (n×n) and m, for the statistics file

    // One unit of the 3·H + 4·n progress scale; false once a cancel is seen.
    bool Unit() { return progress->ReportAndPoll(unitsDone++, unitsTotal); }
    long long RowSamples() const { return static_cast<long long>(n) * width; }
};

namespace {

Matrix Transposed(const Matrix& a, int n)
{
    Matrix t(a.size());
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            t[static_cast<size_t>(j) * n + i] = a[static_cast<size_t>(i) * n + j];
    return t;
}

Matrix Product(Matrix a, Matrix b, int n)
{
    Matrix c(a.size());
    OrvUtility::mult(a.data(), b.data(), c.data(), n, n, n);
    return c;
}

// Row a of a covariance from sums and cross-product sums: (P − S_a·S_b ÷ N) ÷ divisor.
void CompleteCovariance(Matrix& cov, const Matrix& cross, const std::vector<double>& sums, int a, int n, double pixels,
                        double divisor)
{
    for (int b = 0; b < n; ++b)
        cov[static_cast<size_t>(a) * n + b] = (cross[static_cast<size_t>(a) * n + b] - sums[a] * sums[b] / pixels) / divisor;
}

} // namespace

template <class T>
bool CMNFTransFunc::ForwardPasses(MNFForwardRun& run)
{
    const int n = run.n, width = run.width, y0 = run.sel.window.y0;
    const long long rowSamples = run.RowSamples();
    const RowBlocks blocks(run.height, run.rowsPerBlock);
    const long long blockSamples = blocks.RowsPerBlock() * rowSamples;
    TypedBuffer<T> raw = NewSamples<T>(blockSamples);
    FreeTypedBuffer(m_pBuffer);
    m_pBuffer = NewRows<float>(rowSamples).release(); // the first row's upper neighbour
    if (!raw || !m_pBuffer)
        return Fail(kMNFContext, "Apply memory Fail!");

    // Image rows [y, y + count) in the input's type, then Float32, pixel after pixel.
    auto readRows = [&](int y, int count, float* rows) {
        const PixelMajor space = PixelMajorSpacing(n, width, sizeof(T));
        // A failed read counts as zeros, as if the buffer had been cleared before it.
        if (!run.in->ReadRasterInto(run.sel.window.x0, y, width, count, raw.get(), width, count,
                                    static_cast<PixelDataType>(run.type), n, run.sel.bands.data(), space.pixel,
                                    space.line, space.band))
            ClearTypedBuffer(raw.get(), run.type, count * rowSamples);
        for (long long i = 0; i < count * rowSamples; ++i)
            rows[i] = SampleToFloat(raw.get()[i]);
    };
    // One pass: this thread reads every block (one progress unit a row) while the helper computes
    // the blocks before it; `keep` blocks stay held for the next one's sake; done(j) runs here once
    // block j is computed, before its slot is read over.
    enum { kDone, kCancelled, kShort };
    auto pass = [&](int keep, BlockPipeline::ComputeFn compute, const std::function<void(int, float*)>& done) {
        BlockPipeline pipe(3, blockSamples, std::move(compute));
        if (!pipe.Ready())
            return kShort;
        auto retire = [&] {
            const int j = pipe.Released();
            pipe.WaitComputed(std::min(j + keep, blocks.Count() - 1));
            done(j, pipe.Slot(j));
            pipe.Release();
        };
        for (RowBlock block : blocks) {
            if (pipe.Submitted() - pipe.Released() == pipe.Slots())
                retire();
            for (int r = 0; r < block.rows; ++r)
                if (!run.Unit())
                    return kCancelled;
            readRows(y0 + block.first, block.rows, pipe.Slot(block.index));
            pipe.Submit();
        }
        while (pipe.Released() < blocks.Count())
            retire();
        return kDone;
    };
    auto leave = [&](int status) { return status == kCancelled ? LeaveCancelled() : Fail(kMNFContext, "Apply memory Fail!"); };
    auto nothing = [](int, float*) {};
    const double pixels = run.pixels;

    // Pass 1: noise. The first row takes the row below it as its upper neighbour, on purpose;
    // every later row's is the row before it, kept rather than read again.
    std::vector<double> sums(n, 0.0);
    Matrix cross(static_cast<size_t>(n) * n, 0.0);
    if (y0 + 1 < run.imageHeight)
        readRows(y0 + 1, 1, m_pBuffer);
    else
        std::memset(m_pBuffer, 0, rowSamples * sizeof(float));
    int status = pass(1, [&](int block, float* rows, const float* previous) {
        const float* up = previous ? previous + (blocks[block - 1].rows - 1) * rowSamples : m_pBuffer;
        for (int r = 0; r < blocks[block].rows; ++r, up = rows + (r - 1) * rowSamples)
            AccumulateNoiseRow(up, rows + r * rowSamples, n, width, sums.data(), cross.data());
    }, nothing);
    if (status != kDone)
        return leave(status);
    // The 2N divisor is part of the estimate.
    Matrix noiseCov(cross.size());
    for (int a = 0; a < n; ++a) {
        if (!run.Unit())
            return LeaveCancelled();
        CompleteCovariance(noiseCov, cross, sums, a, n, pixels, 2.0 * pixels);
    }

    Matrix e(noiseCov.size()), d(noiseCov.size());
    SortedEigen(noiseCov.data(), n, e.data(), d.data(), false);
    // A noise-free direction is dropped, not divided by zero.
    Matrix scale(noiseCov.size(), 0.0);
    for (int i = 0; i < n; ++i) {
        if (!run.Unit())
            return LeaveCancelled();
        const double eigen = d[static_cast<size_t>(i) * n + i];
        if (eigen > 0.0)
            scale[static_cast<size_t>(i) * n + i] = 1.0 / std::sqrt(eigen);
    }
    const Matrix wh = Product(e, scale, n);
    const Matrix whT = Transposed(wh, n);

    // Pass 2: data statistics.
    std::fill(sums.begin(), sums.end(), 0.0);
    std::fill(cross.begin(), cross.end(), 0.0);
    status = pass(0, [&](int block, float* rows, const float*) {
        for (int r = 0; r < blocks[block].rows; ++r)
            AccumulateDataRow(rows + r * rowSamples, n, width, sums.data(), cross.data());
    }, nothing);
    if (status != kDone)
        return leave(status);
    Matrix dataCov(cross.size());
    run.means.assign(n, 0.0);
    for (int a = 0; a < n; ++a) {
        if (!run.Unit())
            return LeaveCancelled();
        run.means[a] = sums[a] / pixels;
        CompleteCovariance(dataCov, cross, sums, a, n, pixels, pixels);
    }

    const Matrix whitened = Product(Product(whT, dataCov, n), wh, n);
    Matrix v(whitened.size());
    SortedEigen(whitened.data(), n, v.data(), nullptr, false);
    Matrix vT(v.size());
    for (int i = 0; i < n; ++i) {
        if (!run.Unit())
            return LeaveCancelled();
        for (int j = 0; j < n; ++j)
            vT[static_cast<size_t>(i) * n + j] = v[static_cast<size_t>(j) * n + i];
    }
    // Row k of T gives component k, in falling order of signal to noise.
    run.transform = Product(vT, whT, n);

    // Pass 3: components, each row turned into its own in place.
    const BandNumbers outBands = AllBandNumbers(n);
    const PixelMajor space = PixelMajorSpacing(n, width, sizeof(float));
    status = pass(0, [&](int block, float* rows, const float*) {
        // y_k = Σ_b (x_b − m_b)·T(k,b)
        for (int r = 0; r < blocks[block].rows; ++r)
            AffineRow(rows + r * rowSamples, n, width, run.transform.data(), run.means.data(), nullptr,
                      rows + r * rowSamples);
    }, [&](int block, float* rows) {
        run.out->WriteRaster(0, blocks[block].first, width, blocks[block].rows, rows, width, blocks[block].rows,
                             PDT_Float32, n, outBands.data(), space.pixel, space.line, space.band);
    });
    return status == kDone || leave(status);
}

bool CMNFTransFunc::Forward(const QString& input, const QString& output, const QString& statFile,
                            const QString& format, const int* bands, int bandCount, int firstCol, int lastCol,
                            int firstRow, int lastRow, int blocks)
{
    QFile::remove(output);
    QFile::remove(statFile);
    if (WindowGivenBackwards(firstCol, lastCol, firstRow, lastRow)) {
        m_strError.clear();
        return false;
    }
    MNFForwardRun run;
    run.in = OpenInputRaster(input);
    if (!run.in)
        return Fail(kMNFContext, "Failed to open the input file!");
    if (!SelectWindowAndBands(*run.in, bands, bandCount, firstCol, lastCol, firstRow, lastRow, run.sel)) {
        m_strError.clear();
        return false;
    }
    run.n = static_cast<int>(run.sel.bands.size());
    run.width = run.sel.window.width;
    run.height = run.sel.window.height;
    run.imageHeight = run.in->GetRasterYSize();
    // N is a 32-bit count; a larger window would be computed on an overflowed one.
    if (static_cast<long long>(run.width) * run.height > std::numeric_limits<int32_t>::max())
        return Fail(kMNFContext, "The image has too many pixels for the noise statistics!");
    run.pixels = static_cast<double>(run.width * run.height);
    run.type = run.in->GetRasterBand(0)->GetRasterDataType();
    if (PixelTypeBits(run.type) == 0)
        return Fail(kMNFContext, "The pixel type of the input file is not supported!");

    run.out = CreateOutput(output, run.width, run.height, run.n, PDT_Float32, format);
    if (!run.out)
        return Fail(kMNFContext, "OutFile Creat Fail!");
    CopyGeoTransform(*run.in, *run.out);
    CopySpatialReference(*run.in, *run.out);

    // A budget of 16 bytes gives one row per block; the rule is kept for larger budgets.
    run.rowsPerBlock = RowsPerBlock(blocks, 2LL * run.width * run.n * 4, run.height);
    const ProgressSpan progress(Context(), Tr(kMNFContext, "Forward MNF Transform is running..."), 0, 100,
                                ProgressMath::Single);
    run.progress = &progress;
    run.unitsTotal = 3LL * run.height + 4LL * run.n;
    bool ok = false;
    DispatchPixelType(run.type, [&](auto tag) { ok = ForwardPasses<typename decltype(tag)::type>(run); });
    if (!ok)
        return false;
    WriteMNFStats(statFile, run.n, run.type, run.transform.data(), run.means.data());
    CopyRpcIfPresent(*run.in, *run.out);
    return true;
}
