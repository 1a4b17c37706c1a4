// Forward run: noise from neighbour differences, noise whitening, rotation of the whitened data.
#include "OrvUtility/Mult.h"
#include "frame/BlockPipeline.h"
#include "frame/Mask.h"
#include "frame/RasterAccess.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFKernels.h"
#include "mnf/MNFPixelKernels.h"
#include "mnf/MNFRun.h"
#include "mnf/MNFStatsFile.h"

#include <QFile>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
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
    // A masked run: which pixels count, and what they gave. Null: every pixel counts.
    const RunMask* mask = nullptr;
    long long validPixels = 0, noisePixels = 0, filled = 0;
    float dst = 0; // written at masked pixels

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

enum class PassEnd { Done, Cancelled, Short, AllMasked, NoNoise };

// The window's rows in blocks, read in the input's type band after band, which is GDAL's cheapest
// way out of a pixel-interleaved file, and handed on as Float32, pixel after pixel. Each pass reads
// every block on the run's thread while the pipeline's helper interleaves and computes the blocks
// before it.
template <class T>
class BlockPasses {
public:
    // Computes on block's rows; `previous` is the block before's (null for the first).
    using ComputeFn = std::function<void(int block, float* rows, const float* previous)>;

    explicit BlockPasses(MNFForwardRun& run)
        : m_run(run), m_blocks(run.height, run.rowsPerBlock), m_blockSamples(m_blocks.RowsPerBlock() * run.RowSamples())
    {
        for (int i = 0; i < kSlots; ++i) {
            m_raw[i] = NewSamples<T>(m_blockSamples);
            m_slots[i] = NewRows<float>(m_blockSamples);
        }
        const long long blockPixels = m_blocks.RowsPerBlock() * static_cast<long long>(run.width);
        if (run.mask)
            try {
                for (int i = 0; i < kSlots; ++i) {
                    m_rawValid[i].resize(static_cast<size_t>(blockPixels));
                    m_valid[i].resize(static_cast<size_t>(blockPixels));
                }
            } catch (const std::bad_alloc&) {
                m_short = true;
            }
    }
    bool Ready() const
    {
        for (int i = 0; i < kSlots; ++i)
            if (!m_raw[i] || !m_slots[i])
                return false;
        return !m_short;
    }
    // A masked run's flags of a block's pixels (1 valid), as long as its rows are; those of the
    // spare rows.
    const uint8_t* Valid(int block) const { return m_valid[block % kSlots].data(); }
    uint8_t* SpareValid() const { return m_valid[kSlots - 1].data(); }
    const RowBlocks& Blocks() const { return m_blocks; }
    // Rows that a pass first fills when it interleaves block kSlots − 1, after block 0 is
    // computed: the first block's upper neighbour waits there rather than in a buffer of its own.
    float* SpareRows() const { return Slot(kSlots - 1); }

    // Image rows [y, y + count) as Float32 rows, outside a pass (its buffers are free then).
    void ReadRows(int y, int count, float* rows) const
    {
        ReadBands(y, count, m_raw[0].get());
        Interleave(m_raw[0].get(), m_run.n, static_cast<long long>(count) * m_run.width, rows);
    }

    // One pass, one progress unit a row; done(j) runs here once block j is computed, before its
    // slot is read over. A block's rows are interleaved only once the block before is computed,
    // so that one's rows stay for it to read.
    PassEnd Run(const ComputeFn& compute, const std::function<void(int, float*)>& done = {}) const
    {
        BlockPipeline pipe(kSlots, [&](int block) {
            Interleave(m_raw[block % kSlots].get(), m_run.n, static_cast<long long>(m_blocks[block].rows) * m_run.width,
                       Slot(block));
            // The flags live as long as the rows: the next read may reuse the raw slot's.
            if (m_run.mask)
                m_valid[block % kSlots] = m_rawValid[block % kSlots];
            compute(block, Slot(block), block > 0 ? Slot(block - 1) : nullptr);
        });
        if (!pipe.Ready())
            return PassEnd::Short;
        const bool whole = pipe.Stream(m_blocks.Count(), [&](int index) {
            const RowBlock block = m_blocks[index];
            for (int r = 0; r < block.rows; ++r)
                if (!m_run.Unit())
                    return false; // cancelled
            const int y = m_run.sel.window.y0 + block.first;
            ReadBands(y, block.rows, m_raw[index % kSlots].get());
            // On this thread: a mask band is read from the same dataset.
            if (m_run.mask)
                m_run.mask->ReadWith(m_run.sel.window.x0, y, m_run.width, block.rows, m_raw[index % kSlots].get(),
                                     static_cast<long long>(block.rows) * m_run.width,
                                     m_rawValid[index % kSlots].data());
            return true;
        }, [&](int index) {
            if (done)
                done(index, Slot(index));
            return true;
        });
        return whole ? PassEnd::Done : PassEnd::Cancelled;
    }

private:
    static constexpr int kSlots = 3;
    float* Slot(int block) const { return m_slots[block % kSlots].get(); }

    // Rows [y, y + count) of the selected bands, band after band; a failed read counts as zeros,
    // as if the buffer had been cleared.
    void ReadBands(int y, int count, T* raw) const
    {
        if (!ReadBandRows(*m_run.in, m_run.sel.window.x0, m_run.width, y, count, m_run.sel.bands, m_run.type, raw,
                          SampleOrder::BandAfterBand))
            ClearTypedBuffer(raw, m_run.type, count * m_run.RowSamples());
    }

    MNFForwardRun& m_run;
    RowBlocks m_blocks;
    long long m_blockSamples;
    TypedBuffer<T> m_raw[kSlots];
    TypedBuffer<float> m_slots[kSlots];
    // Written by the passes: the reader's flags and the helper's copies beside the rows.
    mutable std::vector<uint8_t> m_rawValid[kSlots], m_valid[kSlots];
    bool m_short = false;
};

// Sums and cross-product sums of a pass, completed row by row into a covariance, one progress
// unit a row.
struct Moments {
    explicit Moments(int n) : sums(n, 0.0), cross(static_cast<size_t>(n) * n, 0.0) {}
    bool Complete(MNFForwardRun& run, double pixels, double divisor, Matrix& cov) const
    {
        cov.assign(cross.size(), 0.0);
        for (int a = 0; a < run.n; ++a) {
            if (!run.Unit())
                return false;
            CompleteCovariance(cov, cross, sums, a, run.n, pixels, divisor);
        }
        return true;
    }
    std::vector<double> sums;
    Matrix cross;
};

// A masked run's noise of one row: only where the pixel, its upper and its side neighbour are all
// valid, in stretches of the row so that the sums grow in image order as the unmasked run's do.
// How many pixels counted.
long long AccumulateValidNoise(const float* up, const float* row, const uint8_t* upValid, const uint8_t* valid, int n,
                               int width, double* sums, double* cross)
{
    long long used = 0;
    const auto at = [n](int c) { return static_cast<long long>(c) * n; };
    const int inner = width - 1; // side neighbour c + 1
    for (int c = 0; c < inner;) {
        while (c < inner && !(valid[c] & upValid[c] & valid[c + 1]))
            ++c;
        const int start = c;
        while (c < inner && (valid[c] & upValid[c] & valid[c + 1]))
            ++c;
        if (c > start) {
            AccumulateNoiseRun(up + at(start), row + at(start), row + at(start + 1), n, c - start, sums, cross);
            used += c - start;
        }
    }
    const int last = width - 1, side = width > 1 ? width - 2 : last;
    if (valid[last] & upValid[last] & valid[side]) {
        AccumulateNoiseRun(up + at(last), row + at(last), row + at(side), n, 1, sums, cross);
        ++used;
    }
    return used;
}

// A masked run's data sums of one row, over its valid pixels in stretches; how many.
long long AccumulateValidData(const float* row, const uint8_t* valid, int n, int width, double* sums, double* cross)
{
    long long used = 0;
    for (int c = 0; c < width;) {
        while (c < width && !valid[c])
            ++c;
        const int start = c;
        while (c < width && valid[c])
            ++c;
        if (c > start) {
            AccumulateDataRow(row + static_cast<long long>(start) * n, n, c - start, sums, cross);
            used += c - start;
        }
    }
    return used;
}

// Pass 1: the noise covariance, and the whitening Wh = E × S from its eigenvectors. The first row
// takes the row below it as its upper neighbour, on purpose; every later row's is the row before
// it, kept rather than read again.
template <class T>
PassEnd NoiseWhitening(MNFForwardRun& run, const BlockPasses<T>& passes, Matrix& wh)
{
    float* firstUpper = passes.SpareRows();
    const int n = run.n, y0 = run.sel.window.y0, w = run.width;
    const long long rowSamples = run.RowSamples();
    const RowBlocks& blocks = passes.Blocks();
    uint8_t* firstUpperValid = run.mask ? passes.SpareValid() : nullptr;
    if (y0 + 1 < run.imageHeight) {
        passes.ReadRows(y0 + 1, 1, firstUpper);
        if (run.mask)
            run.mask->Read(run.sel.window.x0, y0 + 1, w, 1, firstUpperValid);
    } else {
        std::memset(firstUpper, 0, rowSamples * sizeof(float));
        if (run.mask)
            std::fill(firstUpperValid, firstUpperValid + w, uint8_t{1});
    }
    Moments noise(n);
    const PassEnd end = passes.Run([&](int block, float* rows, const float* previous) {
        const float* up = previous ? previous + (blocks[block - 1].rows - 1) * rowSamples : firstUpper;
        if (!run.mask) {
            for (int r = 0; r < blocks[block].rows; ++r, up = rows + (r - 1) * rowSamples)
                AccumulateNoiseRow(up, rows + r * rowSamples, n, w, noise.sums.data(), noise.cross.data());
            return;
        }
        const uint8_t* valid = passes.Valid(block);
        const uint8_t* upValid = previous ? passes.Valid(block - 1) + (blocks[block - 1].rows - 1) * w : firstUpperValid;
        for (int r = 0; r < blocks[block].rows; ++r) {
            const uint8_t* rowValid = valid + static_cast<long long>(r) * w;
            run.noisePixels += AccumulateValidNoise(up, rows + r * rowSamples, upValid, rowValid, n, w,
                                                    noise.sums.data(), noise.cross.data());
            run.validPixels += std::count(rowValid, rowValid + w, uint8_t{1});
            up = rows + r * rowSamples;
            upValid = rowValid;
        }
    });
    if (end != PassEnd::Done)
        return end;
    if (run.mask && run.validPixels == 0)
        return PassEnd::AllMasked;
    if (run.mask && run.noisePixels == 0)
        return PassEnd::NoNoise;
    // The 2N divisor is part of the estimate.
    const double pixels = run.mask ? static_cast<double>(run.noisePixels) : run.pixels;
    Matrix noiseCov;
    if (!noise.Complete(run, pixels, 2.0 * pixels, noiseCov))
        return PassEnd::Cancelled;
    Matrix e(noiseCov.size()), d(noiseCov.size());
    SortedEigen(noiseCov.data(), n, e.data(), d.data(), false);
    // A noise-free direction is dropped, not divided by zero.
    Matrix scale(noiseCov.size(), 0.0);
    for (int i = 0; i < n; ++i) {
        if (!run.Unit())
            return PassEnd::Cancelled;
        const double eigen = d[static_cast<size_t>(i) * n + i];
        if (eigen > 0.0)
            scale[static_cast<size_t>(i) * n + i] = 1.0 / std::sqrt(eigen);
    }
    wh = Product(e, scale, n);
    return PassEnd::Done;
}

// Pass 2: the data covariance and means, the whitened covariance and its eigenvectors V, and
// T = Vᵀ × Whᵀ, whose row k gives component k in falling order of signal to noise.
template <class T>
PassEnd DataRotation(MNFForwardRun& run, const BlockPasses<T>& passes, const Matrix& wh)
{
    const int n = run.n;
    const long long rowSamples = run.RowSamples();
    const RowBlocks& blocks = passes.Blocks();
    Moments data(n);
    const PassEnd end = passes.Run([&](int block, float* rows, const float*) {
        for (int r = 0; r < blocks[block].rows; ++r) {
            if (run.mask)
                AccumulateValidData(rows + r * rowSamples, passes.Valid(block) + static_cast<long long>(r) * run.width,
                                    n, run.width, data.sums.data(), data.cross.data());
            else
                AccumulateDataRow(rows + r * rowSamples, n, run.width, data.sums.data(), data.cross.data());
        }
    });
    if (end != PassEnd::Done)
        return end;
    const double pixels = run.mask ? static_cast<double>(run.validPixels) : run.pixels;
    Matrix dataCov;
    if (!data.Complete(run, pixels, pixels, dataCov))
        return PassEnd::Cancelled;
    run.means.assign(n, 0.0);
    for (int a = 0; a < n; ++a)
        run.means[a] = data.sums[a] / pixels;
    const Matrix whT = Transposed(wh, n);
    const Matrix whitened = Product(Product(whT, dataCov, n), wh, n);
    Matrix v(whitened.size());
    SortedEigen(whitened.data(), n, v.data(), nullptr, false);
    for (int i = 0; i < n; ++i) // the rotation's set-up: one unit a band
        if (!run.Unit())
            return PassEnd::Cancelled;
    run.transform = Product(Transposed(v, n), whT, n);
    return PassEnd::Done;
}

// Pass 3: y_k = Σ_b (x_b − m_b)·T(k,b), each row turned into its components in place and written.
template <class T>
PassEnd WriteComponents(MNFForwardRun& run, const BlockPasses<T>& passes)
{
    const int n = run.n, w = run.width;
    const long long rowSamples = run.RowSamples();
    const RowBlocks& blocks = passes.Blocks();
    const BandNumbers outBands = AllBandNumbers(n);
    const PixelMajor space = PixelMajorSpacing(n, w, sizeof(float));
    return passes.Run([&](int block, float* rows, const float*) {
        for (int r = 0; r < blocks[block].rows; ++r)
            AffineRow(rows + r * rowSamples, n, w, run.transform.data(), run.means.data(), nullptr,
                      rows + r * rowSamples);
        if (run.mask)
            run.filled += FillMaskedPixels(rows, static_cast<long long>(blocks[block].rows) * w, n, passes.Valid(block),
                                           run.dst);
    }, [&](int block, float* rows) {
        run.out->WriteRaster(0, blocks[block].first, w, blocks[block].rows, rows, w, blocks[block].rows,
                             PDT_Float32, n, outBands.data(), space.pixel, space.line, space.band);
    });
}

} // namespace

template <class T>
bool CMNFTransFunc::ForwardPasses(MNFForwardRun& run)
{
    const BlockPasses<T> passes(run);
    if (!passes.Ready())
        return Fail(kMNFContext, "Apply memory Fail!");
    Matrix wh;
    PassEnd end = NoiseWhitening(run, passes, wh);
    if (end == PassEnd::Done)
        end = DataRotation(run, passes, wh);
    if (end == PassEnd::Done)
        end = WriteComponents(run, passes);
    switch (end) {
    case PassEnd::Done: return true;
    case PassEnd::Cancelled: return LeaveCancelled();
    case PassEnd::AllMasked:
        return Fail(kMNFContext, "Every pixel of the input is masked: there are no statistics to take.");
    case PassEnd::NoNoise:
        return Fail(kMNFContext, "No unmasked pixel has unmasked neighbours: the noise cannot be estimated.");
    default: return Fail(kMNFContext, "Apply memory Fail!");
    }
}

bool CMNFTransFunc::Forward(const QString& input, const QString& output, const QString& statFile,
                            const QString& format, const int* bands, int bandCount, int firstCol, int lastCol,
                            int firstRow, int lastRow, int blocks)
{
    QFile::remove(output);
    QFile::remove(statFile);
    MNFForwardRun run;
    if (!OpenSelected(input, bands, bandCount, firstCol, lastCol, firstRow, lastRow, run.in, run.sel))
        return false;
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

    // A mask with nothing that could be masked leaves the unmasked run, bit for bit.
    std::unique_ptr<RunMask> mask;
    if (m_pMask) {
        mask = std::make_unique<RunMask>(*run.in, run.sel.bands, *m_pMask);
        if (mask->Active()) {
            run.mask = mask.get();
            run.dst = static_cast<float>(OutputNoData(*m_pMask, PDT_Float32));
        }
    }
    m_validPixels = m_totalPixels = static_cast<long long>(run.width) * run.height;

    run.out = CreateOutput(output, run.width, run.height, run.n, PDT_Float32, format);
    if (!run.out)
        return Fail(kMNFContext, "OutFile Creat Fail!");
    CopyPlacementIfPresent(*run.in, *run.out);

    // A budget of 16 bytes gives one row per block; the rule is kept for larger budgets.
    run.rowsPerBlock = RowsPerBlock(blocks, run.width, 2LL * run.n * 4, run.height);
    const ProgressSpan progress(Context(), Tr(kMNFContext, "Forward MNF Transform is running..."), 0, 100,
                                ProgressMath::Single);
    run.progress = &progress;
    run.unitsTotal = 3LL * run.height + 4LL * run.n;
    bool ok = false;
    DispatchPixelType(run.type, [&](auto tag) { ok = ForwardPasses<typename decltype(tag)::type>(run); });
    if (!ok)
        return false;
    if (run.mask) {
        m_validPixels = run.validPixels;
        if (run.filled > 0)
            DeclareMaskedOutput(*run.out, run.n, run.dst, "MNF_STATISTICS",
                                StatisticsOverText(run.validPixels, m_totalPixels));
    }
    WriteMNFStats(statFile, run.n, run.type, run.transform.data(), run.means.data());
    CopyRpcIfPresent(*run.in, *run.out);
    return true;
}
