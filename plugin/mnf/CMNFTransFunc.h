#pragma once
#include "frame/TransWorker.h"

// Minimum noise fraction worker.
class CMNFTransFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    ~CMNFTransFunc();
    bool Forward(const QString& input, const QString& output, const QString& statFile, const QString& format,
                 const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow, int blocks);
    bool Inverse(const QString& input, const QString& output, const QString& statFile, const QString& format,
                 const int* bands, int bandCount, int firstCol, int lastCol, int firstRow, int lastRow, int blocks);

private:
    float* m_pBuffer = nullptr;
};
