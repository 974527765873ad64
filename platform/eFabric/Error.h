// IKORError: the last failure of a framework object, with named attributes ("file", "line", "column" for a file).
// Owner: the object that reports it. Texts live as long as the error does.
#pragma once

#include <Export.h>

enum KORErrorLevel : int { KORError_Info = 0, KORError_Warn = 1, KORError_Error = 2, KORError_Fatal = 3 };

class VELTPLATFORM_API IKORError {
public:
    virtual bool IsSet() const = 0;
    virtual unsigned long GetCode() const = 0;
    virtual int GetLevel() const = 0;  // a KORErrorLevel
    virtual wchar_t const* GetText() const = 0;
    virtual wchar_t const* GetDetail() const = 0;
    virtual char const* GetAttribute(char const* name) const = 0;  // the value, or null
    // Walk the names: `pos` is the walker's place, set by FirstAttribute. Null after the last.
    virtual char const* FirstAttribute(long& pos) const = 0;
    virtual char const* NextAttribute(long& pos) const = 0;

protected:
    ~IKORError() = default;
};
