#pragma once
#include "frame/PCARecords.h"
#include "frame/stTransInfo.h"

#include <limits>
#include <vector>

// Masked runs: the seed's record plus how to find the pixels to leave out and what to write there.
// Fields shared by the three records.
struct stMaskInfo {
    std::vector<double> vecSrcNoData; // one value for every band, or one per band; empty: GDAL's masks
    bool bUseMasks = true;            // false: GDAL's mask bands and the NaN rule are not consulted
    // Written at masked pixels and declared on the output; NaN picks the output type's default
    // (NaN for floating-point types, the lowest value for integers).
    double dDstNoData = std::numeric_limits<double>::quiet_NaN();
};

// What a Fourier or wavelet run filled in one band.
struct stBandFill {
    int nBand = 0;         // 1-based input band
    long long nFilled = 0; // masked pixels given the mean
    long long nPixels = 0; // all pixels of the band
    double dValue = 0;     // the mean of its valid pixels, the value they got
};

struct stMaskedTransInfo {
    stTransInfo info;
    stMaskInfo mask;
    // Handed back by the Fourier and wavelet runs: the bands that had pixels filled.
    std::vector<stBandFill> vecFilled;
};

struct stMaskedForwardPCAInfo {
    stForwardPCAInfo info;
    stMaskInfo mask;
    // Handed back with the eigenvalues: the pixels the statistics were taken over, of all.
    long long nValidPixels = 0;
    long long nTotalPixels = 0;
};

struct stMaskedInversePCAInfo {
    stInversePCAInfo info;
    stMaskInfo mask;
};

// A forward minimum noise fraction run; stMaskedTransInfo with nTransType 1 runs the same way but
// hands nothing back.
struct stMaskedForwardMNFInfo {
    stTransInfo info;
    stMaskInfo mask;
    // Handed back after the run: the pixels the signal statistics were taken over, of all.
    long long nValidPixels = 0;
    long long nTotalPixels = 0;
};
