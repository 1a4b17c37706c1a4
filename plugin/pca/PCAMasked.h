#pragma once
// What a masked principal component run adds to the engine's passes: the validity of each chunk
// beside its samples, statistics over the valid pixels only, and the no-data value written at the
// others. The engine calls these hooks only while a masked run has something to mask.
#include "frame/Mask.h"
#include "frame/RasterAccess.h"
#include "frame/RunContext.h"
#include "pca/PCAKernels.h"

#include "OrvDataSource/RasterDataset.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

class PcaMask {
public:
    PcaMask(const stMaskInfo& info, int outType) : m_info(info), m_dst(OutputNoData(info, outType)) {}

    // Before each pass: the mask of bands 1..n of the engine's input, and a flag buffer per slot.
    bool Prepare(OrvDataSource::RasterDataset& in, int n, int slots, long long maxPixels);
    // The run's thread, beside the chunk's samples.
    template <class TIn>
    bool ReadChunk(int x0, int y0, int cols, int rows, const TIn* samples, int slot)
    {
        m_mask->ReadWith(x0, y0, cols, rows, samples, static_cast<long long>(cols) * rows, m_flags[slot].data());
        return true;
    }
    // The helper: moves the valid pixels of values (pixels [first, first + count) of the chunk in
    // `slot`, n values each) to the front, in order; how many there are.
    long long KeepValid(double* values, long long first, long long count, int n, int slot);
    long long ValidPixels() const { return m_validPixels; }
    long long TotalPixels() const { return m_total; }
    void StartStatistics() { m_validPixels = 0; m_statistics = false; }

    // The no-data value at the masked pixels of a chunk's results, m values a pixel; valid pixels
    // that would read as no-data are moved one step off it.
    template <class TOut>
    void FillMasked(TOut* out, long long pixels, int m, int slot) const;
    // The input's sample range over all bands, valid pixels only: the stretch of integer outputs.
    template <class TIn>
    PcaSampleRange ValidRange(OrvDataSource::RasterDataset& raster, bool& refused) const;
    // Declares the no-data value and how many pixels the statistics saw, once something was masked.
    void Declare(OrvDataSource::RasterDataset& out, int m) const;

private:
    // Something is known to be masked: the statistics left pixels out, or (a rotation-only run
    // without statistics of its own) the bands have masks.
    bool Masking() const { return m_statistics ? m_validPixels < m_total : m_mask && m_mask->Active(); }

    stMaskInfo m_info;
    double m_dst;
    OrvDataSource::RasterDataset* m_in = nullptr;
    std::unique_ptr<RunMask> m_mask;
    std::vector<std::vector<uint8_t>> m_flags;
    long long m_validPixels = 0;
    long long m_total = 0;
    bool m_statistics = false;
    mutable std::atomic<long long> m_filled{0}; // masked pixels written, by the helper
};

// Copies the eigenvalues and the pixel counts into a masked record held by the algorithm object.
void HandBackMaskedEigenValues(const RunContext& ctx, const std::vector<double>& values,
                               const std::vector<double>& contribution, const std::vector<double>& cumulative,
                               long long used, long long total);

template <class TOut>
void PcaMask::FillMasked(TOut* out, long long pixels, int m, int slot) const
{
    if (!Masking())
        return;
    const long long filled = FillMaskedPixels(out, pixels, m, m_flags[slot].data(), static_cast<TOut>(m_dst));
    m_filled.fetch_add(filled, std::memory_order_relaxed);
}

template <class TIn>
PcaSampleRange PcaMask::ValidRange(OrvDataSource::RasterDataset& raster, bool& refused) const
{
    PcaSampleRange range;
    const int width = raster.GetRasterXSize(), height = raster.GetRasterYSize(), bands = raster.GetBandCount();
    const long long rows = std::max(1LL, RowsWithin(64 * 1024, width, bands));
    const long long most = rows * width;
    TypedBuffer<TIn> buffer = NewSamples<TIn>(most * bands);
    std::vector<uint8_t> valid(static_cast<std::size_t>(most));
    refused = !buffer;
    if (!buffer)
        return range;
    const BandNumbers numbers = AllBandNumbers(bands);
    for (const RowBlock block : RowBlocks(height, static_cast<int>(rows))) {
        const long long count = static_cast<long long>(block.rows) * width;
        raster.ReadRasterInto(0, block.first, width, block.rows, buffer.get(), width, block.rows,
                              static_cast<OrvDataSource::PixelDataType>(PixelTypeOf<TIn>()), bands, numbers.data(),
                              sizeof(TIn), static_cast<long long>(width) * sizeof(TIn), count * sizeof(TIn));
        m_mask->Read(0, block.first, width, block.rows, valid.data());
        for (int b = 0; b < bands; ++b)
            for (long long i = 0; i < count; ++i)
                if (valid[i])
                    range.Add(static_cast<double>(buffer.get()[b * count + i]));
    }
    return range;
}
