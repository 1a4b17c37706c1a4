#pragma once
#include <QString>
#include <QStringList>

namespace OrvDataSource {

// GDAL's messages are caught here instead of going to stderr; the host reads the last one.
struct GdalError {
    int nClass = 0;   // CPLErr: 0 none, 1 debug, 2 warning, 3 failure, 4 fatal
    int nNumber = 0;  // CPLErrorNum
    QString strMessage;
};

void InstallGdalErrorHandler();
GdalError LastGdalError();
// Also forgets the failures below: a host calls it when a run starts.
void ClearGdalError();

// A run's I/O failures are facts the host keeps: every read, write, flush, close or copy that
// failed since ClearGdalError(), as "writing out.tif failed: <GDAL's reason>".
QStringList RecordedFailures();
void RecordFailure(const QString& what, const QString& path);
// Passes `ok` through; a failed read or write is recorded under `path`.
bool RecordIO(bool ok, bool write, const QString& path);
// Every failure GDAL reported since ClearGdalError(), also those no operation of ours returned
// (a dirty block written back while another raster was read).
QStringList GdalFailures();
int GdalFailureCount();

// What a successful run lost on the way that the user should hear of (a no-data value an output
// format dropped), since ClearGdalError().
QStringList RecordedWarnings();
void RecordWarning(const QString& text);

} // namespace OrvDataSource
