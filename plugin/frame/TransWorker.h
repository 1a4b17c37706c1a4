#pragma once
#include "frame/RunContext.h"

#include "OrvDataSource/RasterDataset.h"

#include <QString>

// The shape every per-run worker shares: its failure text, then the way back to the algorithm
// object (progress, the cancel flag, error information), narrowed to a run context.
class TransWorker {
public:
    explicit TransWorker(const RunContext& ctx) : m_ctx(&ctx) {}
    const QString& ErrorText() const { return m_strError; }

    using RasterPtr = OrvUtility::_ptr_t<OrvDataSource::RasterDataset>;
    // Opens through the factory's generic open; a dataset without raster bands counts as not opened.
    // The PCA engine, which is no worker, opens its inputs through it too.
    static RasterPtr OpenInputRaster(const QString& path);

protected:
    RasterPtr CreateOutput(const QString& path, int width, int height, int bands, int type, const QString& format) const;

    const RunContext& Context() const { return *m_ctx; }
    void Progress(double percent, const QString& message) const { m_ctx->Report(percent, message); }
    bool Cancelled() const { return m_ctx->CancelRequested(); }
    // The cancelled exit: code -1010 with an empty text on the algorithm object.
    bool LeaveCancelled();
    void SetErrorInfo(int code, const QString& text) const { m_ctx->SetErrorInfo(code, text); }
    // Sets the worker's text translated in `context` and returns false.
    bool Fail(const char* context, const char* text);

    QString m_strError;
    const RunContext* m_ctx;
};

QString Tr(const char* context, const char* text);
