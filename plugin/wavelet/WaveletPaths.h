#pragma once
#include <QString>

// Side files and the temporary are named from the text before the last ".", even when that
// dot belongs to a folder name: hosts look for them under exactly these names.
inline QString CutBeforeLastDot(const QString& path)
{
    const int dot = path.lastIndexOf('.');
    return dot < 0 ? path : path.left(dot);
}

// The temporary raster between the two synthesis passes; removed after every wavelet run.
inline QString WaveletTempPath(const QString& output) { return CutBeforeLastDot(output) + QStringLiteral("_temp.tif"); }
