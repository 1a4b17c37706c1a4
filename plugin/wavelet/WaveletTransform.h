#pragma once
#include "frame/TransWorker.h"

// Wavelet worker: one-level Daubechies decomposition into quadrants, and its synthesis.
class WaveletTransformFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    // bands: 0-based band indices (null = all); a negative first column or row means the whole image.
    bool Forward(const QString& input, const QString& output, const QString& format, const int* bands,
                 int bandCount, int firstCol, int lastCol, int firstRow, int lastRow);
    bool Inverse(const QString& input, const QString& output, const QString& format, int pixelType,
                 const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow,
                 long long memoryBudget);
};

// The temporary raster between the two synthesis passes: the path cut before its last "." + "_temp.tif".
QString WaveletTempPath(const QString& output);
