// Inverse run: components back to the input's bands and pixel type through the inverted forward matrix.
#include "frame/RasterAccess.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFKernels.h"
#include "mnf/MNFPixelKernels.h"
#include "mnf/MNFRun.h"
#include "mnf/MNFStatsFile.h"

#include <QFile>

#include <limits>
#include <type_traits>

using OrvDataSource::RasterDataset;
using OrvDataSource::PDT_Float32;

struct MNFInverseRun {
    OrvUtility::_ptr_t<RasterDataset> in, out;
    MNFSelection sel;
    int n = 0, width = 0, height = 0, type = 0, rowsPerBlock = 1;
    TypedBuffer<double> inverse, means;
    const ProgressSpan* progress = nullptr;
};

template <class T>
bool CMNFTransFunc::InversePass(MNFInverseRun& run)
{
    const int n = run.n, width = run.width, rows = run.rowsPerBlock;
    const long long rowSamples = static_cast<long long>(n) * width;
    // Floating types take the kernel's values as they come; integers pass through a row of doubles.
    constexpr bool kDirect = std::is_floating_point_v<T>;
    FreeTypedBuffer(m_pBuffer);
    m_pBuffer = NewRows<float>(rows * rowSamples).release();
    TypedBuffer<T> pixels = NewSamples<T>(rows * rowSamples);
    TypedBuffer<double> values = kDirect ? nullptr : NewRows<double>(rowSamples);
    if (!m_pBuffer || !pixels || (!kDirect && !values))
        return Fail(kMNFContext, "Apply memory Fail!");
    const BandNumbers outBands = AllBandNumbers(n);
    const PixelMajor inSpace = PixelMajorSpacing(n, width, sizeof(float));
    const PixelMajor outSpace = PixelMajorSpacing(n, width, sizeof(T));
    for (RowBlock block : RowBlocks(run.height, rows)) {
        // A failed read counts as zeros rather than whatever the buffer held.
        if (!run.in->ReadRasterInto(run.sel.window.x0, run.sel.window.y0 + block.first, width, block.rows, m_pBuffer,
                                    width, block.rows, PDT_Float32, n, run.sel.bands.data(), inSpace.pixel,
                                    inSpace.line, inSpace.band))
            ClearTypedBuffer(m_pBuffer, PDT_Float32, block.rows * rowSamples);
        for (int r = 0; r < block.rows; ++r) {
            // value(b) = Σ_k inverse(b,k)·component_k + mean(b)
            const float* components = m_pBuffer + r * rowSamples;
            T* out = pixels.get() + r * rowSamples;
            if constexpr (kDirect) {
                AffineRow(components, n, width, run.inverse.get(), nullptr, run.means.get(), out);
            } else {
                AffineRow(components, n, width, run.inverse.get(), nullptr, run.means.get(), values.get());
                for (long long i = 0; i < rowSamples; ++i)
                    out[i] = StorePixel<T>(values.get()[i]);
            }
        }
        run.out->WriteRaster(0, block.first, width, block.rows, pixels.get(), width, block.rows,
                             static_cast<PixelDataType>(run.type), n, outBands.data(), outSpace.pixel,
                             outSpace.line, outSpace.band);
        if (!run.progress->ReportAndPoll(block.first, run.height))
            return LeaveCancelled();
    }
    return true;
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

    run.out = CreateOutput(output, run.width, run.height, run.n, run.type, format);
    if (!run.out)
        return Fail(kMNFContext, "OutFile Creat Fail!");
    CopyGeoTransform(*run.in, *run.out);
    CopySpatialReference(*run.in, *run.out);

    // The result is not checked, on purpose: a singular matrix is used as the elimination left it.
    InvertMatrix(run.inverse.get(), run.n);
    run.rowsPerBlock = RowsPerBlock(blocks, run.width, 8, run.height);
    const ProgressSpan progress(Context(), Tr(kMNFContext, "Inverse MNF Transform is running..."), 0, 100,
                                ProgressMath::Single);
    run.progress = &progress;
    bool ok = true; // an unknown pixel type leaves the output unwritten
    DispatchPixelType(run.type, [&](auto tag) { ok = InversePass<typename decltype(tag)::type>(run); });
    return ok;
}
