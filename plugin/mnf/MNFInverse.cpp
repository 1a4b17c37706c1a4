// Inverse run: components back to the input's bands and pixel type through the inverted forward matrix.
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
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

using OrvDataSource::RasterDataset;
using OrvDataSource::PDT_Float32;

namespace {
// The integer conversion's doubles are held this many samples at a time.
constexpr long long kPieceSamples = 8 * 1024;
} // namespace

struct MNFInverseRun {
    OrvUtility::_ptr_t<RasterDataset> in, out;
    MNFSelection sel;
    int n = 0, width = 0, height = 0, type = 0, rowsPerBlock = 1;
    TypedBuffer<double> inverse, means;
    const ProgressSpan* progress = nullptr;
    // A masked run: where the components are masked the output gets dst. Null: nothing masked.
    const RunMask* mask = nullptr;
    double dst = 0;
    long long filled = 0;
};

template <class T>
bool CMNFTransFunc::InversePass(MNFInverseRun& run)
{
    const int n = run.n, width = run.width;
    const long long rowSamples = static_cast<long long>(n) * width;
    const RowBlocks blocks(run.height, run.rowsPerBlock);
    const long long blockSamples = blocks.RowsPerBlock() * rowSamples;
    // Floating types take the kernel's values as they come; integers pass through doubles, a
    // piece of a row at a time.
    constexpr bool kDirect = std::is_floating_point_v<T>;
    constexpr int kSlots = 2; // one block read or written while the other is computed
    const int piece = static_cast<int>(std::min<long long>(width, std::max(1LL, kPieceSamples / n)));
    TypedBuffer<float> components[kSlots];
    TypedBuffer<T> pixels[kSlots];
    for (int i = 0; i < kSlots; ++i)
        if (!(components[i] = NewRows<float>(blockSamples)) || !(pixels[i] = NewSamples<T>(blockSamples)))
            return Fail(kMNFContext, "Apply memory Fail!");
    std::vector<uint8_t> valid[kSlots];
    TypedBuffer<float> bands = run.mask ? NewSamples<float>(blockSamples) : nullptr; // the run's thread's
    if (run.mask && !bands)
        return Fail(kMNFContext, "Apply memory Fail!");
    if (run.mask)
        try {
            for (auto& flags : valid)
                flags.resize(static_cast<size_t>(blocks.RowsPerBlock() * width));
        } catch (const std::bad_alloc&) {
            return Fail(kMNFContext, "Apply memory Fail!");
        }
    TypedBuffer<double> values = kDirect ? nullptr : NewRows<double>(static_cast<long long>(piece) * n);
    if (!kDirect && !values)
        return Fail(kMNFContext, "Apply memory Fail!");
    // value(b) = Σ_k inverse(b,k)·component_k + mean(b), on the helper.
    BlockPipeline pipe(kSlots, [&](int index) {
        for (int r = 0; r < blocks[index].rows; ++r) {
            const float* in = components[index % kSlots].get() + r * rowSamples;
            T* out = pixels[index % kSlots].get() + r * rowSamples;
            if constexpr (kDirect) {
                AffineRow(in, n, width, run.inverse.get(), nullptr, run.means.get(), out);
            } else {
                for (long long c = 0; c < width; c += piece) {
                    const int count = static_cast<int>(std::min<long long>(piece, width - c));
                    AffineRow(in + c * n, n, count, run.inverse.get(), nullptr, run.means.get(), values.get());
                    for (long long i = 0; i < static_cast<long long>(count) * n; ++i)
                        out[c * n + i] = StorePixel<T>(values.get()[i]);
                }
            }
        }
        if (run.mask)
            run.filled += FillMaskedPixels(pixels[index % kSlots].get(), static_cast<long long>(blocks[index].rows) * width,
                                           n, valid[index % kSlots].data(), static_cast<T>(run.dst));
    });
    if (!pipe.Ready())
        return Fail(kMNFContext, "Apply memory Fail!");
    const BandNumbers outBands = AllBandNumbers(n);
    const PixelMajor outSpace = PixelMajorSpacing(n, width, sizeof(T));
    const bool whole = pipe.Stream(blocks.Count(), [&](int index) {
        const RowBlock block = blocks[index];
        float* in = components[index % kSlots].get();
        const int y = run.sel.window.y0 + block.first;
        // A masked run reads band after band, so that the samples give their own validity, and
        // interleaves them itself.
        float* read = run.mask ? bands.get() : in;
        // A failed read counts as zeros rather than whatever the buffer held.
        if (!ReadBandRows(*run.in, run.sel.window.x0, width, y, block.rows, run.sel.bands, PDT_Float32, read,
                          run.mask ? SampleOrder::BandAfterBand : SampleOrder::PixelMajor))
            ClearTypedBuffer(read, PDT_Float32, block.rows * rowSamples);
        if (run.mask) {
            const long long pixelsRead = static_cast<long long>(block.rows) * width;
            run.mask->ReadWith(run.sel.window.x0, y, width, block.rows, read, pixelsRead, valid[index % kSlots].data());
            Interleave(read, n, pixelsRead, in);
        }
        return true;
    }, [&](int index) {
        const RowBlock block = blocks[index];
        run.out->WriteRaster(0, block.first, width, block.rows, pixels[index % kSlots].get(), width, block.rows,
                             static_cast<PixelDataType>(run.type), n, outBands.data(), outSpace.pixel, outSpace.line,
                             outSpace.band);
        return run.progress->ReportAndPoll(block.first, run.height);
    });
    return whole || LeaveCancelled();
}

bool CMNFTransFunc::Inverse(const QString& input, const QString& output, const QString& statFile,
                            const QString& format, const int* bands, int bandCount, int firstCol, int lastCol,
                            int firstRow, int lastRow, int blocks)
{
    QFile::remove(output);
    MNFStats stats;
    if (!ReadMNFStats(statFile, stats, m_strError))
        return false;
    MNFInverseRun run;
    run.n = stats.bandCount;
    run.type = stats.pixelType;
    if (run.n > 0) {
        const long long count = static_cast<long long>(run.n) * run.n;
        const char* tooLarge = "The band count of the Stats file is too large!";
        if (count > std::numeric_limits<long long>::max() / static_cast<long long>(sizeof(double)))
            return Fail(kMNFContext, tooLarge);
        // The values on hand are checked before anything is sized by the count: a file of a few
        // bytes must not reserve gigabytes.
        if (static_cast<long long>(stats.matrix.size()) < count || static_cast<long long>(stats.means.size()) < run.n)
            return Fail(kMNFContext, "The Stats file holds fewer values than its band count needs!");
        run.inverse = NewSamples<double>(count);
        run.means = NewSamples<double>(run.n);
        if (!run.inverse || !run.means)
            return Fail(kMNFContext, tooLarge);
        std::copy(stats.matrix.begin(), stats.matrix.begin() + count, run.inverse.get());
        std::copy(stats.means.begin(), stats.means.begin() + run.n, run.means.get());
    }
    if (!OpenSelected(input, bands, bandCount, firstCol, lastCol, firstRow, lastRow, run.in, run.sel))
        return false;
    if (static_cast<int>(run.sel.bands.size()) != run.n)
        return Fail(kMNFContext, "The band count of the input file does not match the Stats file!");
    run.width = run.sel.window.width;
    run.height = run.sel.window.height;

    std::unique_ptr<RunMask> mask;
    if (m_pMask && PixelTypeBits(run.type) != 0) {
        mask = std::make_unique<RunMask>(*run.in, run.sel.bands, *m_pMask);
        if (mask->Active()) {
            run.mask = mask.get();
            run.dst = OutputNoData(*m_pMask, run.type);
        }
    }

    run.out = CreateOutput(output, run.width, run.height, run.n, run.type, format);
    if (!run.out)
        return Fail(kMNFContext, "OutFile Creat Fail!");
    CopyPlacementIfPresent(*run.in, *run.out);

    // The result is not checked, on purpose: a singular matrix is used as the elimination left it.
    InvertMatrix(run.inverse.get(), run.n);
    run.rowsPerBlock = RowsPerBlock(blocks, run.width, 8, run.height);
    const ProgressSpan progress(Context(), Tr(kMNFContext, "Inverse MNF Transform is running..."), 0, 100,
                                ProgressMath::Single);
    run.progress = &progress;
    bool ok = true; // an unknown pixel type leaves the output unwritten
    DispatchPixelType(run.type, [&](auto tag) { ok = InversePass<typename decltype(tag)::type>(run); });
    if (ok && run.filled > 0)
        DeclareMaskedOutput(*run.out, run.n, run.dst);
    return ok;
}
