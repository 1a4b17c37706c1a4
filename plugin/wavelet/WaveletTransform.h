#pragma once
#include "frame/MaskRecords.h"
#include "frame/TransWorker.h"
#include "wavelet/WaveletPaths.h"

#include <cstddef>
#include <vector>

// Wavelet worker: one-level Daubechies decomposition into quadrants, and its synthesis.
class WaveletTransformFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    // Every band (or the 0-based band indices listed) of the window becomes one Float32 band of
    // quadrants: LL top left, horizontal detail top right, vertical bottom left, diagonal bottom right.
    // A negative first column or row means the whole image; the bounds are inclusive.
    bool Forward(const QString& input, const QString& output, const QString& format, const int* bands,
                 int bandCount, int firstCol, int lastCol, int firstRow, int lastRow);
    // Rebuilds the bands from Forward's quadrants into `pixelType` (1..7). Columns are synthesised into
    // the temporary raster, rows from it; `memoryBudget` bytes bound the rows of all bands per chunk.
    bool Inverse(const QString& input, const QString& output, const QString& format, int pixelType,
                 const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow,
                 long long memoryBudget);

    // From now on Forward gives masked pixels their band's valid mean before the transform; it
    // reads the bands once more for the means, unless nothing can be masked.
    void SetMask(const stMaskInfo& mask)
    {
        m_mask = mask;
        m_useMask = true;
    }
    // The bands of the last forward run that had pixels filled.
    const std::vector<stBandFill>& Filled() const { return m_filled; }

    // Rows of all bands per chunk; 0 sizes chunks by bytes. Tests shrink it to move chunk edges.
    void SetRowsPerChunk(std::size_t rows) { m_rowsPerChunk = rows; }

private:
    struct InverseSetup;
    bool PrepareInverse(const QString& input, const QString& output, const QString& format, int pixelType,
                        const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow,
                        InverseSetup& setup);

    std::size_t m_rowsPerChunk = 0;
    stMaskInfo m_mask;
    bool m_useMask = false;
    std::vector<stBandFill> m_filled;
};

