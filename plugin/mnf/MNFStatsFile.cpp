#include "mnf/MNFStatsFile.h"
#include "frame/TransWorker.h"

#include <QDataStream>
#include <QFile>
#include <QStringList>

#include <cstdint>

namespace {

const char* kContext = "CMNFTransFunc";
constexpr int kStreamVersion = 17;

QString Joined(const double* values, long long count)
{
    QString text;
    for (long long i = 0; i < count; ++i) {
        if (i)
            text += ",";
        text += QString::number(values[i], 'g', 10);
    }
    return text;
}

// Everything after "= ", wherever the (possibly translated) key ends.
QString ScalarPart(const QString& record)
{
    const int e = record.indexOf("=");
    return record.right(record.size() - e - 2);
}

// A braced list or, for one band, a bare number; parts that do not convert count as 0.0.
std::vector<double> ParseValues(const QString& record, int bandCount)
{
    std::vector<double> values;
    if (bandCount == 1) {
        values.push_back(ScalarPart(record).toDouble());
        return values;
    }
    QString list = record.mid(record.indexOf("=") + 3);
    list.chop(1);
    for (const QString& part : list.split(",", Qt::SkipEmptyParts))
        values.push_back(part.toDouble());
    return values;
}

} // namespace

void WriteMNFStats(const QString& path, int bandCount, int pixelType, const double* matrix, const double* means)
{
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    QDataStream stream(&file);
    stream.setVersion(kStreamVersion);
    stream << Tr(kContext, "Band Num") + " = " + QString::number(bandCount);
    stream << Tr(kContext, "ImgType") + " = " + QString::number(pixelType);
    if (bandCount < 1)
        return;
    const long long n = bandCount;
    if (n == 1) {
        stream << Tr(kContext, "pdblVect") + " = " + Joined(matrix, 1);
        stream << Tr(kContext, "pdblMean") + " = " + Joined(means, 1);
    } else {
        // The blank after the mean's brace and its absence after the matrix's are both kept:
        // readers of existing files accept exactly this.
        stream << Tr(kContext, "pdblVect") + " = {" + Joined(matrix, n * n) + "}";
        stream << Tr(kContext, "pdblMean") + " = { " + Joined(means, n) + "}";
    }
}

bool ReadMNFStats(const QString& path, MNFStats& stats, QString& error)
{
    if (path.isEmpty()) {
        error = Tr(kContext, "The Stats file does not exist!");
        return false;
    }
    stats.matrix.clear();
    stats.means.clear();
    if (QFile::exists(path)) {
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        QDataStream stream(&file);
        stream.setVersion(kStreamVersion);
        QString record;
        stream >> record;
        stats.bandCount = static_cast<int32_t>(static_cast<uint32_t>(ScalarPart(record).toLong()));
        stream >> record;
        const int type = ScalarPart(record).toInt();
        if (type >= 1 && type <= 7)
            stats.pixelType = type;
        stream >> record;
        stats.matrix = ParseValues(record, stats.bandCount);
        stream >> record;
        stats.means = ParseValues(record, stats.bandCount);
    }
    if (stats.matrix.empty() || stats.means.empty()) {
        error = Tr(kContext, "The Stats file is error!");
        return false;
    }
    return true;
}
