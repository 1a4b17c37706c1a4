#include "RunReport.h"
#include "MaskOptions.h"

#include "OrvDataSource/DatasetFactory.h"
#include "OrvDataSource/GdalErrors.h"

#include <cstdio>

using namespace OrvDataSource;

std::string DescribeCode(int code)
{
    switch (code) {
    case 2: return "the input could not be opened";
    case 100: return "no parameters were given";
    case -1010: return "the run was cancelled";
    default: return "the transform failed";
    }
}

std::string DescribeFailure(const Request& req, int code)
{
    if (code == -1010 || (req.command != "pca" && req.command != "pca-inverse"))
        return DescribeCode(code);
    const bool forward = req.command == "pca";
    if (req.inputBands == 0)
        return "the principal component run failed: INPUT could not be opened as a raster";
    return std::string("the principal component ") + (forward ? "rotation" : "inverse rotation") +
           " failed: INPUT could not be read, " +
           (forward ? "the statistics file or OUTPUT could not be written"
                    : "the statistics file could not be read or OUTPUT could not be written") +
           ", or no routine converts INPUT's pixel type to the one asked for";
}

std::string ExplainPluginText(const QString& text)
{
    const QString t = text.trimmed();
    if (t == "Input file is inconsistent with the sensor type!")
        return "  -sensor tm needs at least 6 bands, mss 4 and etm 6.";
    if (t == "Low Disk Space!")
        return "  Writing OUTPUT would leave less than 100 MiB free on its file system.";
    if (t == "OutFile Creat Fail!")
        return "  OUTPUT could not be created in the format asked for.";
    return {};
}

std::vector<EigenRow> EigenTable(const boost::any& record)
{
    std::vector<EigenRow> rows;
    const boost::any seed = SeedOf(record);
    if (const auto* info = boost::any_cast<stForwardPCAInfo>(&seed))
        for (size_t i = 0; i < info->vecEigenValues.size(); ++i)
            rows.push_back({i + 1, info->vecEigenValues[i],
                            i < info->vecContribution.size() ? 100.0 * info->vecContribution[i] : 0.0,
                            i < info->vecCumulative.size() ? 100.0 * info->vecCumulative[i] : 0.0});
    return rows;
}

bool HostSawFailure() { return !RecordedFailures().isEmpty() || !GdalFailures().isEmpty(); }

std::vector<std::string> HostWarnings()
{
    std::vector<std::string> lines;
    for (const QString& w : RecordedWarnings())
        lines.push_back("Warning: " + w.toStdString());
    return lines;
}

std::string RecordedFailureLines()
{
    // Our own lines name the file; GDAL's bare messages are shown only when there is none of ours.
    QStringList lines = RecordedFailures();
    if (lines.isEmpty())
        lines = GdalFailures();
    lines.removeDuplicates();
    constexpr int kShown = 3; // a failing file repeats itself block after block
    std::string text;
    for (int i = 0; i < lines.size() && i < kShown; ++i)
        text += "  " + lines[i].toStdString() + "\n";
    if (lines.size() > kShown)
        text += "  (and " + std::to_string(lines.size() - kShown) + " more)\n";
    return text;
}

void ReportHostFailure(const Request& req)
{
    std::fprintf(stderr, "ERROR 1: the transform reported success, but GDAL failed during the run:\n%s",
                 RecordedFailureLines().c_str());
    for (const std::string& path : req.outputs)
        if (DatasetFactory::DeleteRaster(QString::fromStdString(path)))
            std::fprintf(stderr, "Removed %s.\n", path.c_str());
}
