#include "fft/FftTransform.h"

bool TavTransFFTFuncNew::ForwardRun(const QString&, const QString&, const QString&, std::vector<int>)
{
    return Fail("TavTransFFTFuncNew", "The Fourier transform is not in this build.");
}

bool TavTransFFTFuncNew::InverseRun(const QString&, const QString&, int, const QString&)
{
    return Fail("TavTransFFTFuncNew", "The Fourier transform is not in this build.");
}
