#pragma once
#include <QString>

namespace OrvDataSource {

// GDAL's messages are caught here instead of going to stderr; the host reads the last one.
struct GdalError {
    int nClass = 0;   // CPLErr: 0 none, 1 debug, 2 warning, 3 failure, 4 fatal
    int nNumber = 0;  // CPLErrorNum
    QString strMessage;
};

void InstallGdalErrorHandler();
GdalError LastGdalError();
void ClearGdalError();

} // namespace OrvDataSource
