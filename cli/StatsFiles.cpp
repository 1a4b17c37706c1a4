#include "StatsFiles.h"

#include "MaskOptions.h"

#include <QDataStream>
#include <QFile>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

namespace {

struct Stats {
    int n = 0;
    std::vector<double> means;
    std::vector<double> matrix;  // PCA: the decomposed matrix; MNF: unused
    std::vector<double> byBand;  // one column per band: the PCA eigenvectors transposed, the MNF matrix
};

// The PCA file: 2n^2 + 3n + 1 little-endian doubles; `expected` bands when above 0.
std::string ReadPca(const QString& path, int expected, Stats& s)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return "the statistics file '" + path.toStdString() + "' was not written";
    const QByteArray bytes = f.readAll();
    std::vector<double> v(static_cast<size_t>(bytes.size()) / 8);
    std::memcpy(v.data(), bytes.constData(), v.size() * 8);
    const double header = v.empty() ? 0.0 : v[0];
    const int n = std::isfinite(header) && header >= 1 && header < 1e5 ? static_cast<int>(header) : 0;
    const size_t need = 2 * size_t(n) * n + 3 * size_t(n) + 1;
    if (n < 1 || (expected > 0 && n != expected) || v.size() != need || bytes.size() % 8)
        return "the statistics file '" + path.toStdString() + "' holds " + std::to_string(bytes.size()) +
               " bytes, not the " + std::to_string(8 * (2 * expected * expected + 3 * expected + 1)) +
               " the run meant to write for " + std::to_string(expected) + " bands";
    s.n = n;
    s.means.assign(v.begin() + 1, v.begin() + 1 + n);
    s.matrix.assign(v.begin() + 1 + n, v.begin() + 1 + n + n * n);
    s.byBand.resize(size_t(n) * n);
    for (int i = 0; i < n; ++i) // stored row i = band i: transposed, a column per band
        for (int k = 0; k < n; ++k)
            s.byBand[size_t(k) * n + i] = v[1 + n + n * n + size_t(i) * n + k];
    return {};
}

// A number as QString::number writes it, "nan" and "inf" included.
bool ToNumber(const QString& part, double& value)
{
    bool ok = false;
    value = part.toDouble(&ok);
    const QString t = part.toLower();
    if (!ok && (t == "nan" || t == "inf" || t == "+inf" || t == "-inf")) {
        value = t == "nan" ? NAN : t.startsWith('-') ? -INFINITY : INFINITY;
        ok = true;
    }
    return ok;
}

// Everything after "=" of an MNF record, its braces dropped, as numbers; empty when one is not.
std::vector<double> Numbers(const QString& record)
{
    QString text = record.mid(record.indexOf('=') + 1).trimmed();
    if (text.startsWith('{') && text.endsWith('}'))
        text = text.mid(1, text.size() - 2);
    std::vector<double> values;
    for (const QString& part : text.split(',', Qt::SkipEmptyParts))
        if (double v = 0; ToNumber(part.trimmed(), v))
            values.push_back(v);
        else
            return {};
    return values;
}

// The MNF file: four QDataStream text records; the matrix row-major with a column per band.
std::string ReadMnf(const QString& path, int expected, Stats& s)
{
    const std::string name = "the statistics file '" + path.toStdString() + "'";
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return name + " was not written";
    QDataStream in(&f);
    in.setVersion(17);
    QString records[4];
    for (QString& r : records)
        in >> r;
    bool ok = in.status() == QDataStream::Ok;
    const int n = records[0].mid(records[0].indexOf('=') + 1).trimmed().toInt();
    const std::vector<double> vect = Numbers(records[2]), mean = Numbers(records[3]);
    if (!ok || n < 1 || (expected > 0 && n != expected) || vect.size() != size_t(n) * n || mean.size() != size_t(n))
        return name + " does not hold the " + std::to_string(expected > 0 ? expected : n) +
               "-band matrix and means the run meant to write";
    s.n = n;
    s.means = mean;
    s.byBand = vect;
    return {};
}

bool AllFinite(const std::vector<double>& v)
{
    return std::all_of(v.begin(), v.end(), [](double x) { return std::isfinite(x); });
}

std::string BandList(const std::vector<int>& bands)
{
    std::string s;
    for (size_t i = 0; i < bands.size(); ++i)
        s += (i == 0 ? "" : i + 1 == bands.size() ? " and " : ", ") + std::to_string(bands[i]);
    return (bands.size() == 1 ? "band " : "bands ") + s;
}

// Why these statistics give no meaningful rotation (a band holding NaN or Inf, a constant band
// under correlation), or empty.
std::string NonFinite(const Stats& s, bool correlation)
{
    for (int b = 0; b < s.n; ++b)
        if (!std::isfinite(s.means[b]))
            return "band " + std::to_string(b + 1) + " of the scene holds NaN or infinite values, so its "
                   "statistics are not numbers and neither would be the result";
    // The band whose row of the decomposed matrix is least finite is the one that spoiled it.
    int worst = -1, most = 0;
    for (int b = 0; b < int(s.matrix.size() / std::max(1, s.n)); ++b) {
        const auto row = s.matrix.begin() + size_t(b) * s.n;
        const int bad = int(std::count_if(row, row + s.n, [](double x) { return !std::isfinite(x); }));
        if (bad > most)
            worst = b, most = bad;
    }
    if (worst >= 0 && correlation)
        return "band " + std::to_string(worst + 1) + " is constant, so its correlations divide by zero; "
               "rotate by the covariance instead (without -corr)";
    if (worst >= 0)
        return "the covariances of band " + std::to_string(worst + 1) + " are too large for double precision";
    if (!AllFinite(s.matrix) || !AllFinite(s.byBand))
        return "the rotation matrix came out with values that are not numbers";
    return {};
}

std::string Singular(const Stats& s)
{
    const std::vector<int> bands = DependentBands(s.byBand, s.n);
    if (bands.empty())
        return {};
    return "its matrix cannot be inverted: " + BandList(bands) +
           (bands.size() == 1 ? " carries nothing the others do not (a constant band)"
                              : " depend on each other (repeated, constant or proportional bands)");
}

const QString* StatsPath(const Request& req, bool& mnf)
{
    mnf = false;
    if (const auto* f = ForwardPcaSeed(req.record))
        return &f->strStatFile;
    if (const auto* i = InversePcaSeed(req.record))
        return &i->strStatFile;
    if (const auto* t = TransSeed(req.record); t && t->nTransType == 1) {
        mnf = true;
        return &t->strStatFile;
    }
    return nullptr;
}

} // namespace

std::vector<int> DependentBands(const std::vector<double>& m, int n)
{
    std::vector<long double> a(m.begin(), m.end());
    std::vector<int> col(n);
    std::iota(col.begin(), col.end(), 0);
    long double scale = 0;
    for (long double x : a)
        scale = std::max(scale, std::fabs(x));
    // Pivots below this are rounding, not information: the file keeps 10 digits at worst.
    const long double tol = scale * 1e-9L;
    auto at = [&](int i, int j) -> long double& { return a[size_t(i) * n + j]; };
    int rank = 0;
    for (; rank < n; ++rank) { // complete pivoting: the rank shows in the pivots
        int pi = rank, pj = rank;
        for (int i = rank; i < n; ++i)
            for (int j = rank; j < n; ++j)
                if (std::fabs(at(i, j)) > std::fabs(at(pi, pj)))
                    pi = i, pj = j;
        if (!(std::fabs(at(pi, pj)) > tol))
            break;
        for (int j = 0; j < n; ++j)
            std::swap(at(rank, j), at(pi, j));
        for (int i = 0; i < n; ++i)
            std::swap(at(i, rank), at(i, pj));
        std::swap(col[rank], col[pj]);
        for (int i = rank + 1; i < n; ++i) {
            const long double f = at(i, rank) / at(rank, rank);
            for (int j = rank; j < n; ++j)
                at(i, j) -= f * at(rank, j);
        }
    }
    if (rank == n)
        return {};
    // Each free column with weight 1, the pivoted ones solved back, is a null vector: M x = 0.
    std::vector<int> bands;
    for (int free = rank; free < n; ++free) {
        std::vector<long double> x(n, 0.0L);
        x[free] = 1.0L;
        for (int i = rank - 1; i >= 0; --i) {
            long double sum = at(i, free);
            for (int j = i + 1; j < rank; ++j)
                sum += at(i, j) * x[j];
            x[i] = -sum / at(i, i);
        }
        long double largest = 0;
        for (long double v : x)
            largest = std::max(largest, std::fabs(v));
        for (int i = 0; i < n; ++i)
            if (std::fabs(x[i]) > 1e-6L * largest)
                bands.push_back(col[i] + 1);
    }
    std::sort(bands.begin(), bands.end());
    bands.erase(std::unique(bands.begin(), bands.end()), bands.end());
    return bands;
}

StatsVerdict CheckStatisticsRead(const Request& req)
{
    bool mnf = false;
    const QString* path = StatsPath(req, mnf);
    const bool inverse = req.command == "pca-inverse" || req.command == "mnf-inverse";
    if (!path || !inverse || !QFile::exists(*path))
        return {}; // a missing or unreadable file is the plug-in's to report
    Stats s;
    if (!(mnf ? ReadMnf(*path, 0, s) : ReadPca(*path, 0, s)).empty())
        return {}; // so is one it cannot parse
    const std::string name = "the statistics file '" + path->toStdString() + "'";
    if (req.inputBands > 0 && s.n != req.inputBands)
        return {2, name + " describes " + std::to_string(s.n) + " bands, but INPUT has " +
                       std::to_string(req.inputBands) + "; use the statistics file of the run that made INPUT", {}};
    s.matrix.clear();
    if (!AllFinite(s.means) || !AllFinite(s.byBand))
        return {1, name + " holds values that are not numbers (NaN or infinite); the run that wrote it read "
                          "a band with such values", {}};
    if (std::string singular = Singular(s); !singular.empty())
        return {1, name + " cannot be used: " + singular, {}};
    return {};
}

StatsVerdict CheckStatisticsWritten(const Request& req)
{
    bool mnf = false;
    const QString* path = StatsPath(req, mnf);
    if (!path || (req.command != "pca" && req.command != "mnf"))
        return {};
    int bands = req.inputBands;
    if (const auto* f = ForwardPcaSeed(req.record); f && f->nComponents > 0)
        bands = f->nComponents;
    Stats s;
    if (std::string problem = mnf ? ReadMnf(*path, bands, s) : ReadPca(*path, bands, s); !problem.empty())
        return {1, problem, {}};
    const auto* forward = ForwardPcaSeed(req.record);
    if (std::string problem = NonFinite(s, forward && !forward->bCovariance); !problem.empty())
        return {1, problem, {}};
    if (std::string singular = Singular(s); !singular.empty())
        return {0, {}, "Warning: " + std::string(mnf ? "mnf-inverse" : "pca-inverse") + " cannot use the statistics file '" +
                           path->toStdString() + "': " + singular + "."};
    return {};
}

std::string MnfInverseOutputType(const std::string& statsPath)
{
    static const char* const kNames[] = {"Byte", "UInt16", "Int16", "UInt32", "Int32", "Float32", "Float64"};
    QFile f(QString::fromStdString(statsPath));
    if (!f.open(QIODevice::ReadOnly))
        return "Float64";
    QDataStream in(&f);
    in.setVersion(17);
    QString records[2];
    for (QString& r : records)
        in >> r;
    const int code = records[1].mid(records[1].indexOf('=') + 1).trimmed().toInt();
    return code >= 1 && code <= 7 ? kNames[code - 1] : "Float64";
}
