#include "CertificateHolder.h"

namespace p11client {

Certificate* CertificateHolder::getCertPtr(LogBase&) const { return m_cert.get(); }

} // namespace p11client
