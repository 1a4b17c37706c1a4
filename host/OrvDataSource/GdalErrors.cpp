#include "OrvDataSource/GdalErrors.h"

#include <cpl_error.h>

#include <mutex>

namespace OrvDataSource {
namespace {

std::mutex g_errorMutex;
GdalError g_lastError;
QStringList g_recorded;
QStringList g_gdalFailures;
QStringList g_warnings;
int g_failureCount = 0;
constexpr int kKeptFailures = 20; // a failing disk repeats itself; the first few say it all

void CPL_STDCALL CaptureError(CPLErr eClass, CPLErrorNum nNumber, const char* pszMessage)
{
    if (eClass == CE_Debug)
        return;
    std::lock_guard<std::mutex> lock(g_errorMutex);
    g_lastError.nClass = static_cast<int>(eClass);
    g_lastError.nNumber = nNumber;
    g_lastError.strMessage = QString::fromUtf8(pszMessage ? pszMessage : "");
    if (eClass >= CE_Failure && g_failureCount++ < kKeptFailures)
        g_gdalFailures << g_lastError.strMessage;
}

} // namespace

void InstallGdalErrorHandler()
{
    static std::once_flag once;
    std::call_once(once, [] { CPLSetErrorHandler(CaptureError); });
}

GdalError LastGdalError()
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    return g_lastError;
}

void ClearGdalError()
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    g_lastError = GdalError{};
    g_recorded.clear();
    g_gdalFailures.clear();
    g_warnings.clear();
    g_failureCount = 0;
    CPLErrorReset();
}

QStringList RecordedFailures()
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    return g_recorded;
}

QStringList GdalFailures()
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    return g_gdalFailures;
}

int GdalFailureCount()
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    return g_failureCount;
}

void RecordFailure(const QString& what, const QString& path)
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    if (g_recorded.size() >= kKeptFailures)
        return;
    const QString reason = g_lastError.nClass >= CE_Failure ? g_lastError.strMessage : QStringLiteral("no reason given");
    g_recorded << what + " " + path + " failed: " + reason;
}

bool RecordIO(bool ok, bool write, const QString& path)
{
    if (!ok)
        RecordFailure(write ? QStringLiteral("writing") : QStringLiteral("reading"), path);
    return ok;
}

QStringList RecordedWarnings()
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    return g_warnings;
}

void RecordWarning(const QString& text)
{
    std::lock_guard<std::mutex> lock(g_errorMutex);
    if (!g_warnings.contains(text))
        g_warnings << text;
}

} // namespace OrvDataSource
