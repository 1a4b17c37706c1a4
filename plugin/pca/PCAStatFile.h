#pragma once
#include "frame/RasterAccess.h"

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <memory>

// The PCA statistics file: 2n² + 3n + 1 little-endian doubles, n first, then means, the decomposed
// matrix, eigenvectors (row = band, column = component), eigenvalues, cumulative contributions.
class CPCAStatFile {
public:
    CPCAStatFile(const QString& path, int bands);
    ~CPCAStatFile();
    CPCAStatFile(const CPCAStatFile&) = delete;
    CPCAStatFile& operator=(const CPCAStatFile&) = delete;

    static long long DoubleCount(long long n) { return 2 * n * n + 3 * n + 1; }

    bool CreateForWriting();
    void SetMeans(const double* v) { Put(1, m_nBands, v); }
    void SetMatrix(const double* v) { Put(1 + m_nBands, Square(), v); }
    void SetEigenVectors(const double* v) { Put(1 + m_nBands + Square(), Square(), v); }
    void SetEigenValues(const double* v) { Put(1 + m_nBands + 2 * Square(), m_nBands, v); }
    void SetCumulative(const double* v) { Put(1 + 2 * m_nBands + 2 * Square(), m_nBands, v); }
    void WriteAndClose();

    // Reads element 0; the band count is that double truncated, or 0 when it is not a usable count
    // (see HeaderValue for what was actually there).
    bool OpenForReading();
    int Bands() const { return m_nBands; }
    const QString& Path() const { return m_strPath; }
    double HeaderValue() const { return m_dHeader; }
    // -1 when the file is not open. A short file leaves the caller's values as they were.
    int ReadMeans(double* v);
    int ReadEigenVectors(double* v);
    void Release();

private:
    long long Square() const { return static_cast<long long>(m_nBands) * m_nBands; }
    void Put(long long first, long long count, const double* v);
    int ReadAt(long long first, long long count, double* v);

    QString m_strPath;
    QByteArray m_path; // local 8-bit form, as the C library takes it
    int m_nBands;
    double m_dHeader = 0.0;
    TypedBuffer<double> m_values;
    std::FILE* m_file = nullptr;
};
