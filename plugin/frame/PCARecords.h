#pragma once
#include <QString>
#include <vector>

// Forward principal component request; the last three fields come back after a statistics-only run.
struct stForwardPCAInfo {
    QString strInputFile;
    QString strStatFile;
    QString strOutputFile;
    QString strFormat;
    int nOutDataType = 5;       // 0-based pixel type
    bool bSubtractMean = false;
    int nComponents = 0;        // bands used and components written; 0 = all
    bool bCovariance = true;    // false: correlation
    bool bStepwise = false;     // with nComponents 0: statistics only
    std::vector<double> vecEigenValues;
    std::vector<double> vecContribution;
    std::vector<double> vecCumulative;
};

struct stInversePCAInfo {
    QString strInputFile;
    QString strStatFile;
    QString strOutputFile;
    QString strFormat;
    int nOutDataType = 5;       // 0..5 give types 1..6, anything else Float64
};
