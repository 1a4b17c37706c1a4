#include "wavelet/WaveletTransform.h"

QString WaveletTempPath(const QString& output)
{
    const int dot = output.lastIndexOf('.');
    return (dot < 0 ? output : output.left(dot)) + QStringLiteral("_temp.tif");
}

bool WaveletTransformFunc::Forward(const QString&, const QString&, const QString&, const int*, int, int, int, int, int)
{
    return Fail("WaveletTransformFunc", "The wavelet transform is not in this build.");
}

bool WaveletTransformFunc::Inverse(const QString&, const QString&, const QString&, int, const int*, int, int, int,
                                   int, int, long long)
{
    return Fail("WaveletTransformFunc", "The wavelet transform is not in this build.");
}
