#include "ExtPtrArray.h"

namespace p11client {

ZelvanObject* ExtPtrArray::elementAt(int index) const
{
    if (index < 0 || index >= getSize())
        return nullptr;
    return m_items[static_cast<std::size_t>(index)].get();
}

void ExtPtrArray::appendObject(std::unique_ptr<ZelvanObject> obj)
{
    if (obj)
        m_items.push_back(std::move(obj));
}

const StringBuffer* ExtPtrArraySb::sbAt(int index) const
{
    if (index < 0 || index >= getSize())
        return nullptr;
    return &m_items[static_cast<std::size_t>(index)];
}

const char* ExtPtrArraySb::stringAt(int index) const
{
    const StringBuffer* sb = sbAt(index);
    return sb != nullptr ? sb->getString() : nullptr;
}

} // namespace p11client
