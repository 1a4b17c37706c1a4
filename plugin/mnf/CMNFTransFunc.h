#pragma once
#include "frame/TransWorker.h"

struct MNFForwardRun;
struct MNFInverseRun;
struct MNFSelection;

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

private:
    template <class T>
    bool ForwardPasses(MNFForwardRun& run);
    template <class T>
    bool InversePass(MNFInverseRun& run);
    // Opens the input and resolves the window and bands against it; false with the run's text
    // (none for a window or band list that does not fit).
    bool OpenSelected(const QString& input, const int* bands, int bandCount, int firstCol, int lastCol, int firstRow,
                      int lastRow, RasterPtr& in, MNFSelection& selection);
};
