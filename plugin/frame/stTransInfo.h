#pragma once
#include <QString>
#include <vector>

// The host's request for one of the non-PCA transforms, carried in the algorithm's boost::any.
struct stTransInfo {
    int nTransType = 0;       // 1 MNF, 2 Fourier, 3 wavelet, 4 Tasseled Cap; anything else runs nothing
    bool bForward = true;     // ignored by the Tasseled Cap
    QString strInputFile;
    QString strStatFile;      // MNF statistics file
    QString strOutputFile;
    QString strFormat;        // GDAL driver name of the output
    int nOption1 = 0;         // carried for the host, not read here
    int nSensorType = 0;      // Tasseled Cap: 0 TM, 1 MSS, other ETM+
    int nOption2 = 0;
    bool bOption = false;
    std::vector<int> vecBands; // 1-based bands of a forward Fourier run; empty = all
    int nOutDataType = 5;     // 0-based pixel type of an inverse Fourier output (5 = Float32)
};
