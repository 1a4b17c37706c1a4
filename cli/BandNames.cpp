#include "BandNames.h"

#include "MaskOptions.h"
#include "Quicklook.h"

#include "frame/stTasseledCapInfo.h"

#include <cpl_error.h>
#include <gdal_priv.h>

#include <memory>

namespace {

struct RecordFields {
    std::string input, output, stats, format, options;
};

std::string S(const QString& q) { return q.toStdString(); }

template <class Record>
RecordFields Files(const Record& r)
{
    return {S(r.strInputFile), S(r.strOutputFile), S(r.strStatFile), S(r.strFormat), {}};
}

// The options as they would be typed again, built from the record the plug-in received.
RecordFields Fields(const Request& req)
{
    RecordFields f;
    const boost::any seed = SeedOf(req.record);
    if (const auto* t = boost::any_cast<stTransInfo>(&seed)) {
        f = Files(*t);
        if (req.command == "kt")
            f.options = std::string("-sensor ") + SensorName(t->nSensorType);
        else if (req.command == "fft")
            for (int b : t->vecBands)
                f.options += (f.options.empty() ? "-b " : " -b ") + std::to_string(b);
        else if (req.command == "fft-inverse")
            f.options = std::string("-ot ") + PixelTypeNameAt(t->nOutDataType);
    } else if (const auto* k = boost::any_cast<stTasseledCapInfo>(&req.record)) {
        f = Files(k->trans);
        f.options = k->strSensor.isEmpty() ? "-coefficients " + S(k->strCoefficientFile) : "-sensor " + S(k->strSensor);
        if (!k->vecScale.empty())
            f.options += " -unscale";
    } else if (const auto* p = boost::any_cast<stForwardPCAInfo>(&seed)) {
        f = Files(*p);
        f.options = std::string("-ot ") + PixelTypeNameAt(p->nOutDataType);
        if (p->nComponents > 0)
            f.options += " -n " + std::to_string(p->nComponents);
        if (!p->bCovariance)
            f.options += " -corr";
        if (!p->bSubtractMean)
            f.options += " -no-center";
        if (req.statsOnly)
            f.options += " -stats-only";
    } else if (const auto* i = boost::any_cast<stInversePCAInfo>(&seed)) {
        f = Files(*i);
        f.options = std::string("-ot ") + PixelTypeNameAt(i->nOutDataType);
    }
    if (!f.stats.empty())
        f.options = "-stats " + f.stats + (f.options.empty() ? "" : " ") + f.options;
    if (const std::string mask = MaskOptionsText(req.command, req.record); !mask.empty())
        f.options += (f.options.empty() ? "" : " ") + mask;
    f.options += (f.options.empty() ? "-of " : " -of ") + f.format;
    return f;
}

// The input band behind output band `band` of a forward Fourier run (two output bands per input band).
int FourierSource(const Request& req, int band)
{
    const auto* t = TransSeed(req.record);
    const size_t pair = static_cast<size_t>(band - 1) / 2;
    return t && pair < t->vecBands.size() ? t->vecBands[pair] : static_cast<int>(pair) + 1;
}

// ENVI and HFA fill in "Band 1" and "Layer_1" on their own; those are no names the plug-in gave.
bool Unnamed(const std::string& description, int band)
{
    const std::string n = std::to_string(band);
    return description.empty() || description == "Band " + n || description == "Layer_" + n;
}

} // namespace

std::string BandName(const Request& req, int band)
{
    const std::string n = std::to_string(band);
    const std::string& c = req.command;
    if (c == "pca")
        return "PC " + n;
    if (c == "mnf")
        return "MNF " + n;
    if (c == "kt")
        return "Tasseled Cap " + n;
    if (c == "dwt")
        return "Wavelet quadrants (band " + n + ")";
    if (c == "fft")
        return std::string(band % 2 ? "Real" : "Imaginary") + " (band " + std::to_string(FourierSource(req, band)) + ")";
    return "Band " + n + " restored";
}

std::vector<std::pair<std::string, std::string>> RunMetadata(const Request& req)
{
    const RecordFields f = Fields(req);
    std::vector<std::pair<std::string, std::string>> items = {
        {"COMMAND", req.command}, {"OPTIONS", f.options}, {"INPUT", f.input}};
    if (!f.stats.empty())
        items.emplace_back("STATISTICS", f.stats);
    // Where a set the host brought comes from: its publication, or the user's file.
    if (const auto* k = boost::any_cast<stTasseledCapInfo>(&req.record))
        items.emplace_back("COEFFICIENTS", S(k->strReference.isEmpty() ? k->strCoefficientFile : k->strReference));
    items.emplace_back("VERSION", std::string("tavtransform ") + TAV_VERSION);
    return items;
}

std::string OutputFile(const Request& req) { return req.statsOnly ? std::string() : Fields(req).output; }

void DescribeOutput(const Request& req)
{
    const RecordFields f = Fields(req);
    const std::string output = req.statsOnly ? std::string() : f.output;
    if (output.empty())
        return;
    GDALAllRegister();
    // A copy-only format (COG, PNG) was written whole; changing it afterwards would undo its layout.
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(f.format.c_str());
    if (!driver || !driver->GetMetadataItem(GDAL_DCAP_CREATE))
        return;
    // A format without update support or without room for these just stays as it is, quietly.
    CPLPushErrorHandler(CPLQuietErrorHandler);
    std::unique_ptr<GDALDataset> ds(
        GDALDataset::FromHandle(GDALOpenEx(output.c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE, nullptr, nullptr, nullptr)));
    if (ds) {
        for (int b = 1; b <= ds->GetRasterCount(); ++b) {
            GDALRasterBand* band = ds->GetRasterBand(b);
            if (Unnamed(band->GetDescription(), b))
                band->SetDescription(BandName(req, b).c_str());
        }
        for (const auto& [key, value] : RunMetadata(req))
            ds->SetMetadataItem(key.c_str(), value.c_str(), "TAVTRANSFORM");
        ds.reset();
    }
    CPLErrorReset();
    CPLPopErrorHandler();
}

std::string FinishOutput(const Request& req)
{
    DescribeOutput(req);
    return req.quicklook.empty() ? std::string() : WriteQuicklook(OutputFile(req), req.quicklook, req.command == "fft");
}
