#include "CreationOptions.h"

#include "Options.h"

#include "OrvDataSource/DatasetFactory.h"

namespace {

QStringList ToQt(const std::vector<std::string>& words)
{
    QStringList list;
    for (const std::string& w : words)
        list << QString::fromStdString(w);
    return list;
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
    o.request.creationOptions = o.creationOptions;
    o.request.creationPath = o.output;
    return {};
}

void ApplyCreationOptions(const Request& request)
{
    OrvDataSource::DatasetFactory::SetCreationOptions(QString::fromStdString(request.creationPath),
                                                      ToQt(request.creationOptions));
}
