#include "OrvAlgo/IOrvAlgo.h"

namespace OrvAlgo {

IOrvAlgo::IOrvAlgo() = default;
IOrvAlgo::~IOrvAlgo() = default;

QString IOrvAlgo::GetID() const { return m_strID; }
QString IOrvAlgo::GetName() const { return m_strName; }
void IOrvAlgo::SetName(const QString& name) { m_strName = name; }
QString IOrvAlgo::GetDescription() const { return m_strDescription; }
void IOrvAlgo::SetDescription(const QString& description) { m_strDescription = description; }
boost::any& IOrvAlgo::GetParams() { return m_params; }
void IOrvAlgo::SetParams(const boost::any& params) { m_params = params; }

void IOrvAlgo::GetErrorInfo(int& code, QString& text) const
{
    code = m_nErrorCode;
    text = m_strErrorText;
}

void IOrvAlgo::SetErrorInfo(int code, const QString& text)
{
    m_nErrorCode = code;
    m_strErrorText = text;
}

} // namespace OrvAlgo
