#pragma once
#include "OrvAlgo/ProgressSignal.h"
#include "OrvUtility/CRef.h"

#include <QString>
#include <boost/any.hpp>

namespace OrvAlgo {

// Base of every algorithm a plug-in hands to the host. The virtual operations keep their slot
// order: plug-ins built against this header rely on it.
class IOrvAlgo : public OrvUtility::CRef {
public:
    IOrvAlgo();
    ~IOrvAlgo() override;

    virtual QString GetID() const;
    virtual QString GetName() const;
    virtual void SetName(const QString& name);
    virtual QString GetDescription() const;
    virtual void SetDescription(const QString& description);
    virtual boost::any& GetParams();
    virtual void SetParams(const boost::any& params);
    virtual void GetErrorInfo(int& code, QString& text) const;
    virtual void SetErrorInfo(int code, const QString& text);
    virtual bool Execute() = 0;
    virtual void Terminate() = 0;

    // The host owns the signal; the algorithm only fires it.
    void SetProgressSignal(ProgressSignal* signal) { m_pProgressSignal = signal; }
    ProgressSignal* GetProgressSignal() const { return m_pProgressSignal; }

protected:
    ProgressSignal* m_pProgressSignal = nullptr;
    QString m_strID;
    QString m_strName;
    QString m_strDescription;
    int m_nErrorCode = 0;
    QString m_strErrorText;
    boost::any m_params;
};

} // namespace OrvAlgo
