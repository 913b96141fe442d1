// The PKCS#11 library paths of one driver record of the card database.
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "ExtPtrArray.h"
#include "ClsBase.h"
#include "StringBuffer.h"
#include "XString.h"

namespace p11client {

namespace {

void addPath(const StringBuffer& value, ExtPtrArraySb& paths, LogBase& log)
{
    log.LogDataSb("path", value);
    paths.appendString(value.getString());
}

// Collects the non-empty strings of the array at arrayPath, which holds
// `count` elements. True when `paths` holds anything afterwards, including
// paths from earlier calls.
bool collectArray(ClsJsonObject& driver, const StringBuffer& arrayPath, int count, ExtPtrArraySb& paths,
                  LogBase& log)
{
    if (count <= 0)
        return false;
    StringBuffer elementPath(arrayPath.view());
    elementPath.append("[i]");
    StringBuffer value;
    for (int i = 0; i < count; ++i) {
        driver.put_I(i);
        if (driver.jsonTypeOf(elementPath.getString()) != ClsJsonObject::kTypeString)
            continue; // not a path: skipped silently
        value.clear();
        driver.sbOfPathUtf8(elementPath.getString(), value, log);
        if (!value.isEmpty())
            addPath(value, paths, log);
    }
    return paths.getSize() > 0;
}

// The single path at path; an empty or unreadable one fails silently.
bool collectString(ClsJsonObject& driver, const StringBuffer& path, ExtPtrArraySb& paths, LogBase& log)
{
    StringBuffer value;
    if (!driver.sbOfPathUtf8(path.getString(), value, log) || value.isEmpty())
        return false;
    addPath(value, paths, log);
    return true;
}

// The form keyed by word size: only "x86" is consulted, whatever the
// processor; "x64" and "x32" are never read.
bool collectWordSizeForm(ClsJsonObject& driver, const StringBuffer& platformPath, ExtPtrArraySb& paths,
                         LogBase& log)
{
    StringBuffer x86Path(platformPath.view());
    x86Path.append(".x86");
    const XString x86PathX(x86Path.getString());
    const int type = driver.JsonTypeOf(x86PathX);
    if (type == ClsJsonObject::kTypeArray)
        return collectArray(driver, x86Path, driver.SizeOfArray(x86PathX), paths, log);
    if (type != ClsJsonObject::kTypeString)
        return false;
    StringBuffer value;
    if (!driver.sbOfPathUtf8(x86Path.getString(), value, log) || value.isEmpty()) {
        // The wording is the same for every platform.
        log.LogError("Failed to get Windows driver path.");
        return false;
    }
    addPath(value, paths, log);
    return true;
}

bool collectDriverPaths(ClsJsonObject& driver, const char* osKey, ExtPtrArraySb& paths, LogBase& log)
{
    if (osKey == nullptr)
        return false;
    StringBuffer platformPath("file.");
    platformPath.append(osKey);
    const XString platformPathX(platformPath.getString());
    switch (driver.JsonTypeOf(platformPathX)) {
    case ClsJsonObject::kTypeArray:
        return collectArray(driver, platformPath, driver.sizeOfArray(platformPath.getString(), log), paths, log);
    case ClsJsonObject::kTypeObject:
        return collectWordSizeForm(driver, platformPath, paths, log);
    case ClsJsonObject::kTypeString:
        return collectString(driver, platformPath, paths, log);
    default:
        return false;
    }
}

} // namespace

// Paths are appended as stored: placeholders are not expanded and no test is
// made whether the file exists. `paths` is not cleared here.
bool ClsPkcs11::getPkcs11DriverPaths(ClsJsonObject& driver, const char* osKey, ExtPtrArraySb& paths,
                                     LogBase& log)
{
    LogContextExitor ctx(log, "getPkcs11DriverPaths");
    return runGuarded(log, [&] { return collectDriverPaths(driver, osKey, paths, log); });
}

} // namespace p11client
