#!/usr/bin/python3
"""The job a user would script instead of `tavtransform fft`, with GDAL and numpy.

    bench_fft_run.py fft INPUT OUTPUT     centred spectrum of band 1: ifft2 (positive exponent,
                                          divided by W*H), fftshift, real and imaginary Float32 bands
    bench_fft_run.py compare A B          largest difference between two spectra, relative to the
                                          largest magnitude in B
"""
import sys

import numpy as np
from osgeo import gdal


def forward(src, dst):
    ds = gdal.Open(src)
    spectrum = np.fft.fftshift(np.fft.ifft2(ds.GetRasterBand(1).ReadAsArray()))
    out = gdal.GetDriverByName("GTiff").Create(dst, ds.RasterXSize, ds.RasterYSize, 2, gdal.GDT_Float32)
    out.SetGeoTransform(ds.GetGeoTransform())
    out.SetProjection(ds.GetProjection())
    out.GetRasterBand(1).WriteArray(spectrum.real.astype(np.float32))
    out.GetRasterBand(2).WriteArray(spectrum.imag.astype(np.float32))
    out = None


def spectrum_of(path):
    ds = gdal.Open(path)
    return ds.GetRasterBand(1).ReadAsArray().astype(np.float64) + 1j * ds.GetRasterBand(2).ReadAsArray()


def compare(a, b):
    x, y = spectrum_of(a), spectrum_of(b)
    print("%.2e" % (np.abs(x - y).max() / np.abs(y).max()))


def main(argv):
    gdal.UseExceptions()
    if len(argv) == 4 and argv[1] == "fft":
        forward(argv[2], argv[3])
    elif len(argv) == 4 and argv[1] == "compare":
        compare(argv[2], argv[3])
    else:
        sys.stderr.write(__doc__)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
