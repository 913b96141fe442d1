#include "Pkcs11_Attributes.h"

namespace p11client {

void Pkcs11_Attributes::clearPkcs11Attrs() noexcept
{
    for (std::uint32_t& v : m_values)
        v = 0;
    m_objects.removeAllObjects();
    m_texts.removeAllSbs();
    m_filled = false;
}

} // namespace p11client
