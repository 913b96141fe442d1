#pragma once

#include "ClsBase.h"

#include <memory>

namespace p11client {

class DataBuffer;
class StringBuffer;
class XString;
struct JsonDocument;

// A JSON document addressed by paths: member names joined by '.', array
// elements by a bracketed index after the name ("slots[2].token.label").
// The index may be a number or the letter i, which stands for the value set
// with put_I ("file.linux[i]"). Paths are relative to this object's root.
//
// Member order is kept as loaded or written.
class ClsJsonObject : public ClsBase {
public:
    // Codes returned by JsonTypeOf.
    static constexpr int kTypeString = 1;
    static constexpr int kTypeNumber = 2;
    static constexpr int kTypeObject = 3;
    static constexpr int kTypeArray = 4;
    static constexpr int kTypeBool = 5;
    static constexpr int kTypeNull = 6;
    static constexpr int kTypeMissing = -1;

    ClsJsonObject();
    ~ClsJsonObject() override;
    ClsJsonObject(const ClsJsonObject&) = delete;
    ClsJsonObject& operator=(const ClsJsonObject&) = delete;

    // A new empty object owned by the caller, or null.
    static ClsJsonObject* createNewCls();

    // Reading and writing the whole document.
    bool Load(const XString& jsonText);
    bool loadJson(const DataBuffer& utf8Json, LogBase& log);
    bool loadJsonText(const char* utf8Json, std::size_t size, LogBase& log);
    void Clear();
    void clear(LogBase& log);
    // The document as text: indented by default, one line when EmitCompact.
    bool Emit(XString& out);
    void emitSb(StringBuffer& out);
    bool get_EmitCompact();
    void put_EmitCompact(bool compact);

    // The index variable i of paths.
    int get_I();
    void put_I(int i);

    // Queries; a path that names nothing answers kTypeMissing, false, 0 or null.
    int JsonTypeOf(const XString& path);
    int jsonTypeOf(const char* path);
    bool HasMember(const XString& path);
    int SizeOfArray(const XString& path);
    // Number of members of the object at the path (-1 when it is no object),
    // and the name of the member at an index, in document order.
    int SizeOfObject(const XString& path);
    int sizeOfObject(const char* path);
    bool NameAt(const XString& path, int index, XString& name);
    bool nameAt(const char* path, int index, StringBuffer& name);
    int sizeOfArray(const char* path, LogBase& log);
    bool StringOf(const XString& path, XString& out);
    // The value as text: strings as they are, numbers and booleans written out.
    bool sbOfPathUtf8(const char* path, StringBuffer& out, LogBase& log);
    long long IntOf(const XString& path);
    long long intOf(const char* path);
    bool BoolOf(const XString& path);
    bool boolOf(const char* path, LogBase& log);
    // A copy of the first element (an object) of the array at arrayPath whose
    // member at relPath equals value, owned by the caller; null if none.
    ClsJsonObject* FindRecord(const XString& arrayPath, const XString& relPath, const XString& value,
                              bool caseSensitive);
    // A copy of the object or array at the path, owned by the caller; null if none.
    ClsJsonObject* ObjectOf(const XString& path);

    // Writers: missing objects on the way are created; an array index may
    // name an existing element or the one just past the end.
    bool UpdateString(const XString& path, const XString& value);
    bool updateString(const char* path, const char* value);
    bool UpdateInt(const XString& path, long long value);
    bool updateInt(const char* path, long long value);
    bool updateUInt(const char* path, unsigned long long value);
    bool UpdateBool(const XString& path, bool value);
    bool updateBool(const char* path, bool value);
    bool UpdateNull(const XString& path);
    bool UpdateNewObject(const XString& path);
    bool updateNewObject(const char* path);
    bool UpdateNewArray(const XString& path);
    bool updateNewArray(const char* path);
    bool Delete(const XString& path);

private:
    friend struct JsonDocument;

    std::unique_ptr<JsonDocument> m_doc;
    bool m_emitCompact = false;
};

} // namespace p11client
