#pragma once
#include "frame/TransWorker.h"

struct MNFForwardRun;
struct MNFInverseRun;
struct MNFSelection;
struct stMaskInfo;

// Minimum noise fraction worker: forward components with their statistics file, and the inverse
// back to the input's bands and pixel type.
class CMNFTransFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    // bands: 0-based indices, bandCount 0 = all; firstCol -1 = the whole image; blocks: byte budget.
    bool Forward(const QString& input, const QString& output, const QString& statFile, const QString& format,
                 const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow, int blocks);
    bool Inverse(const QString& input, const QString& output, const QString& statFile, const QString& format,
                 const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow, int blocks);

    // Masked runs: the pixels to leave out and what to write there (null, the default: none). The
    // mask must outlive the runs.
    void UseMask(const stMaskInfo* mask) { m_pMask = mask; }
    // After a forward run: the pixels its statistics were taken over, and all of the window's.
    long long ValidPixels() const { return m_validPixels; }
    long long TotalPixels() const { return m_totalPixels; }

private:
    template <class T>
    bool ForwardPasses(MNFForwardRun& run);
    template <class T>
    bool InversePass(MNFInverseRun& run);
    // Opens the input and resolves the window and bands against it; false with the run's text
    // (none for a window or band list that does not fit).
    bool OpenSelected(const QString& input, const int* bands, int bandCount, int firstCol, int lastCol, int firstRow,
                      int lastRow, RasterPtr& in, MNFSelection& selection);

    const stMaskInfo* m_pMask = nullptr;
    long long m_validPixels = 0, m_totalPixels = 0;
};
