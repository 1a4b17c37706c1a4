#include "mnf/CMNFTransFunc.h"
#include "frame/RasterAccess.h"

CMNFTransFunc::~CMNFTransFunc() { FreeTypedBuffer(m_pBuffer); }

bool CMNFTransFunc::Forward(const QString&, const QString&, const QString&, const QString&, const int*, int, int,
                            int, int, int, int)
{
    return Fail("CMNFTransFunc", "The minimum noise fraction transform is not in this build.");
}

bool CMNFTransFunc::Inverse(const QString&, const QString&, const QString&, const QString&, const int*, int, int,
                            int, int, int, int)
{
    return Fail("CMNFTransFunc", "The minimum noise fraction transform is not in this build.");
}
