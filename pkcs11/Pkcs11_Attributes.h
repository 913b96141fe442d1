#pragma once

#include "ExtPtrArray.h"
#include "ZelvanObject.h"

#include <cstdint>

namespace p11client {

// A record of attribute values for other parts of the library: four numbers,
// an array of objects and an array of texts, released by clearPkcs11Attrs.
class Pkcs11_Attributes : public NonRefCountedObj {
public:
    Pkcs11_Attributes() = default;
    ~Pkcs11_Attributes() override { clearPkcs11Attrs(); }

    // Empties the record; never throws.
    void clearPkcs11Attrs() noexcept;

    std::uint32_t m_values[4] = {0, 0, 0, 0};
    ExtPtrArray m_objects;
    ExtPtrArraySb m_texts;
    bool m_filled = false;
};

} // namespace p11client
