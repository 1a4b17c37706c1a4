#include "pca/PCAStatFile.h"

#include <QFile>

#include <bit>
#include <cmath>

static_assert(std::endian::native == std::endian::little, "the statistics file holds little-endian doubles");

CPCAStatFile::CPCAStatFile(const QString& path, int bands) : m_strPath(path), m_path(QFile::encodeName(path)), m_nBands(bands) {}

CPCAStatFile::~CPCAStatFile() { Release(); }

bool CPCAStatFile::CreateForWriting()
{
    Release();
    // The array first: without it nothing could be written, and the file is left as it was.
    m_values = NewZeroedSamples<double>(DoubleCount(m_nBands));
    if (!m_values)
        return false;
    m_file = std::fopen(m_path.constData(), "wb");
    if (!m_file)
        return false;
    m_values.get()[0] = m_nBands;
    return true;
}

void CPCAStatFile::Put(long long first, long long count, const double* v)
{
    if (m_values && v)
        std::copy(v, v + count, m_values.get() + first);
}

void CPCAStatFile::WriteAndClose()
{
    if (!m_file || !m_values)
        return;
    std::fwrite(m_values.get(), sizeof(double), DoubleCount(m_nBands), m_file);
    std::fclose(m_file);
    m_file = nullptr;
}

bool CPCAStatFile::OpenForReading()
{
    Release();
    m_file = std::fopen(m_path.constData(), "rb");
    if (!m_file)
        return false;
    m_dHeader = 0.0;
    if (std::fread(&m_dHeader, sizeof(double), 1, m_file) != 1)
        m_dHeader = 0.0;
    // Truncation toward zero; values no int holds read as 0 so the caller refuses them.
    m_nBands = std::isfinite(m_dHeader) && std::fabs(m_dHeader) < 2147483647.0 ? static_cast<int>(m_dHeader) : 0;
    return true;
}

int CPCAStatFile::ReadAt(long long first, long long count, double* v)
{
    if (!m_file)
        return -1;
    if (std::fseek(m_file, static_cast<long>(first * sizeof(double)), SEEK_SET) == 0)
        (void)std::fread(v, sizeof(double), count, m_file); // a short file leaves the rest as it was
    return 0;
}

int CPCAStatFile::ReadMeans(double* v) { return ReadAt(1, m_nBands, v); }

int CPCAStatFile::ReadEigenVectors(double* v) { return ReadAt(1 + m_nBands + Square(), Square(), v); }

void CPCAStatFile::Release()
{
    m_values.reset();
    if (m_file) {
        std::fclose(m_file);
        m_file = nullptr;
    }
}
