#include "OrvDataSource/GdalErrors.h"

#include <cpl_error.h>

#include <mutex>

namespace OrvDataSource {
namespace {

std::mutex g_errorMutex;
GdalError g_lastError;

void CPL_STDCALL CaptureError(CPLErr eClass, CPLErrorNum nNumber, const char* pszMessage)
{
    if (eClass == CE_Debug)
        return;
    std::lock_guard<std::mutex> lock(g_errorMutex);
    g_lastError.nClass = static_cast<int>(eClass);
    g_lastError.nNumber = nNumber;
    g_lastError.strMessage = QString::fromUtf8(pszMessage ? pszMessage : "");
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
    CPLErrorReset();
}

} // namespace OrvDataSource
