"""What the provider offers, as data: one row per algorithm and one row per option.

An option row names the Processing parameter, the tavtransform keyword it becomes (the command
line's option without its dash), the kind of value, the label, the command line's default and the
commands that take it. A new command-line option is one more row here.
"""
from collections import namedtuple

Command = namedtuple("Command", "name cli title group help")
Option = namedtuple("Option", "name keyword kind label default commands help choices")
Option.__new__.__defaults__ = ((),)  # choices: (value, label) pairs of a `choice` option

# (value on the command line, what the analyst picks from)
SENSORS = (
    ("tm", "Landsat TM digital numbers (bands 1-5, and 6 or in a 7-band scene 7): 3 components"),
    ("mss", "Landsat MSS (bands 1-4): 4 components"),
    ("etm", "Landsat ETM+ at-satellite reflectance (bands 1-6): 6 components"),
    ("oli", "Landsat 8/9 OLI TOA reflectance (bands 2-7; 6-band stacks 1-6): 6 components"),
    ("s2", "Sentinel-2 MSI TOA reflectance (B2, B3, B4, B8, B11, B12): 3 components"),
    ("modis", "MODIS reflectance (bands 1-7): 3 components"),
    ("tm-sr", "Landsat TM surface reflectance (bands 1-5 and 7): 6 components"),
)
PIXEL_TYPES = tuple((t, t) for t in ("Byte", "UInt16", "Int16", "UInt32", "Int32", "Float32", "Float64"))

STATS_WRITERS = ("pca", "mnf")
STATS_READERS = ("pca-inverse", "mnf-inverse")
MASKED = ("kt", "pca", "pca-inverse", "mnf", "mnf-inverse")  # the commands that leave masked pixels out
FILLED = ("fft", "dwt")  # the commands that fill masked pixels with their band's mean

COMMANDS = (
    Command("kt", "kt", "Tasseled Cap (K-T) transform", "Tasseled Cap",
            "Turns a Landsat scene into its Tasseled Cap components (brightness, greenness, wetness and, "
            "for ETM+, three more), written as Float32 bands.<br>Choose the sensor whose coefficients fit "
            "the scene: TM expects digital numbers, ETM+ at-satellite reflectance. The output's origin lies "
            "half a pixel in from the input's."),
    Command("pca", "pca", "Principal components", "Principal components",
            "Rotates the bands onto their principal components, the first holding the most variance, and "
            "writes the statistics file that the inverse needs.<br>Tick <i>Statistics only</i> to get the "
            "eigenvalue table (each component's eigenvalue, its share of the variance and the cumulative "
            "share) and the statistics file without writing the components; the table appears in the log, "
            "in the results and as an HTML page."),
    Command("pca_inverse", "pca-inverse", "Principal components, inverse", "Principal components",
            "Rotates principal components back into image bands, with the statistics file written by the "
            "forward run; the band means are always added back. A statistics file made for a different band "
            "count is refused."),
    Command("mnf", "mnf", "Minimum noise fraction", "Minimum noise fraction",
            "Orders the bands' information by signal-to-noise ratio, highest first, and writes one Float32 "
            "component per band plus the statistics file that the inverse needs. The noise is estimated from "
            "each pixel against its upper and right neighbours."),
    Command("mnf_inverse", "mnf-inverse", "Minimum noise fraction, inverse", "Minimum noise fraction",
            "Rebuilds the image bands from minimum noise fraction components with the statistics file of the "
            "forward run. Integer types are truncated, so a pixel may come back one lower."),
    Command("fft", "fft", "Fourier transform", "Fourier",
            "Writes the centred Fourier spectrum of each chosen band as a real and an imaginary Float32 band. "
            "The zero frequency sits in the middle of the image; the spectrum is divided by width x height."),
    Command("fft_inverse", "fft-inverse", "Fourier transform, inverse", "Fourier",
            "Rebuilds image bands from real/imaginary band pairs written by the Fourier transform. Only "
            "Float32 output gives the values themselves; other types receive the single-precision results "
            "unconverted. After a forward run the result is the input mirrored through its origin."),
    Command("dwt", "dwt", "Wavelet transform", "Wavelet",
            "One-level Daubechies four-tap wavelet transform of every band, as Float32 quadrants: the "
            "approximation top left, horizontal detail top right, vertical detail bottom left and diagonal "
            "detail bottom right."),
    Command("dwt_inverse", "dwt-inverse", "Wavelet transform, inverse", "Wavelet",
            "Rebuilds image bands from the wavelet quadrants of a forward run (a Float32 raster). A "
            "temporary raster is written beside the output and removed afterwards."),
)

ALL = tuple(c.cli for c in COMMANDS)

OPTIONS = (
    Option("STATISTICS", "stats", "stats_out", "Statistics file", None, STATS_WRITERS,
           "the file the inverse transform will need"),
    Option("STATISTICS", "stats", "stats_in", "Statistics file", None, STATS_READERS,
           "the file written by the forward transform"),
    Option("SENSOR", "sensor", "choice", "Sensor", "tm", ("kt",),
           "whose coefficients to use", SENSORS),
    Option("COEFFICIENTS", "coefficients", "csv_in", "Own coefficients (CSV)", None, ("kt",),
           "one row per component: its name, one coefficient per band, an optional constant; "
           "used instead of the sensor's set"),
    Option("UNSCALE", "unscale", "flag", "Apply the bands' scale and offset", False, ("kt",),
           "turn stored integers into reflectance with each band's scale and offset first"),
    Option("BANDS", "b", "bands", "Bands to transform", None, ("fft",),
           "in the order given; every band when none is chosen"),
    Option("DATA_TYPE", "ot", "choice", "Output data type", "Float32", ("fft-inverse", "pca", "pca-inverse"),
           "pixel type of the output", PIXEL_TYPES),
    Option("COMPONENTS", "n", "count", "Number of bands to use (0 = all)", 0, ("pca",),
           "use bands 1 to N and write N components"),
    Option("CORRELATION", "corr", "flag", "Use the correlation matrix", False, ("pca",),
           "instead of the covariance matrix, when bands have very different ranges"),
    Option("CENTER", "center", "switch", "Subtract band means", True, ("pca",),
           "subtract each band's mean before projecting, so that the inverse gives the bands back; "
           "untick for the uncentred rotation"),
    Option("STATISTICS_ONLY", "stats_only", "flag", "Statistics only", False, ("pca",),
           "write the statistics file and the eigenvalue table, no components"),
    Option("SRC_NODATA", "srcnodata", "text", "Source no-data values (V or one per band)", None, MASKED + FILLED,
           "pixels holding these values are masked, instead of the bands' own no-data, mask or alpha; "
           "the Fourier and wavelet transforms give them their band's mean"),
    Option("DST_NODATA", "dstnodata", "value", "Output no-data value", None, MASKED,
           "written at the left-out pixels; NaN for Float32/Float64 outputs and the type's lowest value for "
           "integers when not given"),
    Option("MASK", "mask", "switch", "Leave out no-data pixels", True, MASKED + FILLED,
           "untick to transform every pixel, fill included"),
    Option("CREATION_OPTIONS", "co", "creation", "Creation options (NAME=VALUE|NAME=VALUE)", None,
           ALL,
           "the output format's creation options, e.g. TILED=YES|COMPRESS=DEFLATE"),
    Option("QUICKLOOK", "quicklook", "png_out", "Quicklook (PNG)", None, ALL,
           "a preview of the result, at most 1024 pixels on the long side"),
)


def options_of(cli):
    return [o for o in OPTIONS if cli in o.commands]


def command(name):
    return next(c for c in COMMANDS if c.name == name)
