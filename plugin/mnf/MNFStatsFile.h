#pragma once
#include <QString>
#include <vector>

// What the forward run leaves for the inverse: band count, input pixel type, the forward
// transformation matrix (row-major) and the band means.
struct MNFStats {
    int bandCount = 0;
    int pixelType = 0; // left as the caller set it when the file holds a code outside 1..7
    std::vector<double> matrix;
    std::vector<double> means;
};

// Four keyed text records in a Qt data stream; numbers carry 10 significant digits. A file that
// cannot be created is silently missing.
void WriteMNFStats(const QString& path, int bandCount, int pixelType, const double* matrix, const double* means);

// False with the translated message in `error` when the path is empty or no matrix or mean
// value could be read. Counts are not checked here.
bool ReadMNFStats(const QString& path, MNFStats& stats, QString& error);
