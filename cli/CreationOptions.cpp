#include "CreationOptions.h"

#include "Options.h"

#include "OrvDataSource/DatasetFactory.h"

#include <strings.h>

namespace {

QStringList ToQt(const std::vector<std::string>& words)
{
    QStringList list;
    for (const std::string& w : words)
        list << QString::fromStdString(w);
    return list;
}

bool Named(const std::vector<std::string>& options, const char* name)
{
    const std::string prefix = std::string(name) + "=";
    for (const std::string& o : options)
        if (strncasecmp(o.c_str(), prefix.c_str(), prefix.size()) == 0)
            return true;
    return false;
}

// The Fourier runs write band after band: in a pixel-interleaved compressed GeoTIFF each block
// would be compressed again for every band, so theirs are band-interleaved unless the user says.
void BandInterleaveForBandWriters(Options& o)
{
    const bool bandWriter = o.command == "fft" || o.command == "fft-inverse";
    if (bandWriter && strcasecmp(o.format.c_str(), "GTiff") == 0 && Named(o.creationOptions, "COMPRESS") &&
        !Named(o.creationOptions, "INTERLEAVE"))
        o.creationOptions.push_back("INTERLEAVE=BAND");
}

} // namespace

std::string CheckCreationOptions(Options& o)
{
    if (o.creationOptions.empty())
        return {};
    if (o.output.empty())
        return "option -co: this run writes no raster to create with it";
    const QString problem = OrvDataSource::DatasetFactory::Instance()->CreationOptionsProblem(
        QString::fromStdString(o.format), ToQt(o.creationOptions));
    if (!problem.isEmpty())
        return "option -co: " + problem.toStdString();
    BandInterleaveForBandWriters(o);
    o.request.creationOptions = o.creationOptions;
    o.request.creationPath = o.output;
    return {};
}

void ApplyCreationOptions(const Request& request)
{
    OrvDataSource::DatasetFactory::SetCreationOptions(QString::fromStdString(request.creationPath),
                                                      ToQt(request.creationOptions));
}
