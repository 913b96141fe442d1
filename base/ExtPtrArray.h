#pragma once

#include "StringBuffer.h"
#include "ZelvanObject.h"

#include <memory>
#include <vector>

namespace p11client {

// An owning array of heap objects: it deletes its elements when emptied or
// destroyed. Both arrays here always own what is appended to them, so there
// is no ownership switch to turn on.
class ExtPtrArray {
public:
    ExtPtrArray() = default;
    ExtPtrArray(const ExtPtrArray&) = delete;
    ExtPtrArray& operator=(const ExtPtrArray&) = delete;
    ExtPtrArray(ExtPtrArray&&) noexcept = default;
    ExtPtrArray& operator=(ExtPtrArray&&) noexcept = default;
    ~ExtPtrArray() = default;

    int getSize() const { return static_cast<int>(m_items.size()); }
    // The element, or null for any index outside 0 .. size-1.
    ZelvanObject* elementAt(int index) const;
    // Takes ownership of obj (deleted at once if the append itself fails).
    void appendObject(std::unique_ptr<ZelvanObject> obj);
    void appendObject(ZelvanObject* obj) { appendObject(std::unique_ptr<ZelvanObject>(obj)); }
    void removeAllObjects() { m_items.clear(); }

private:
    std::vector<std::unique_ptr<ZelvanObject>> m_items;
};

// An owning array of StringBuffers.
class ExtPtrArraySb {
public:
    int getSize() const { return static_cast<int>(m_items.size()); }
    void appendString(const char* s) { m_items.emplace_back(s); }
    void appendSb(const StringBuffer& sb) { m_items.push_back(sb); }
    // The string, or null for any index outside 0 .. size-1.
    const StringBuffer* sbAt(int index) const;
    const char* stringAt(int index) const;
    void removeAllSbs() { m_items.clear(); }

private:
    std::vector<StringBuffer> m_items;
};

} // namespace p11client
