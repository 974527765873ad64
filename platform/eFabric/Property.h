// Property bags: the typed name/value records that pass between a host, the library and the scan engines.
#pragma once

#include <memory>

#include <Export.h>

enum class KORPropChange { Added, Changed, Deleted, Cleared };
enum KORPropType : int {
    KORProp_None = 0,
    KORProp_String = 1,
    KORProp_Long = 2,
    KORProp_ULong = 3,
    KORProp_Double = 4,
    KORProp_Bag = 5
};
class IKORPropertyBag;
class IKORProperty {
public:
    virtual int GetType() const = 0;
    virtual bool SetDouble(double) = 0;
    virtual bool SetULong(unsigned long) = 0;
    virtual bool SetWide(wchar_t const*) = 0;
    virtual bool SetNarrow(char const*) = 0;
    virtual bool SetLong(long) = 0;
    virtual bool SetBag(IKORPropertyBag* owned) = 0;
    virtual bool GetULong(unsigned long&) const = 0;
    virtual wchar_t const* GetWide() const = 0;
    virtual char const* GetNarrow() const = 0;
    virtual bool GetLong(long&) const = 0;
    virtual IKORPropertyBag* GetBag() const = 0;
    virtual char const* GetName() const = 0;
    virtual bool AddDouble(double) = 0;
    virtual bool AddULong(unsigned long) = 0;
    virtual bool AddWide(wchar_t const*) = 0;
    virtual bool AddLong(long) = 0;
    virtual bool AddBag(IKORPropertyBag* owned) = 0;
    virtual unsigned GetCount() const = 0;
    virtual bool GetDoubleAt(unsigned, double&) const = 0;
    virtual bool GetULongAt(unsigned, unsigned long&) const = 0;
    virtual wchar_t const* GetWideAt(unsigned) const = 0;
    virtual bool GetLongAt(unsigned, long&) const = 0;
    virtual IKORPropertyBag* GetBagAt(unsigned) const = 0;
    virtual bool GetDouble(double&) const = 0;
    virtual char const* GetNarrowAt(unsigned) const = 0;
    virtual bool AddNarrow(char const*) = 0;
    virtual ~IKORProperty() = default;
};
class IKORPropertyBag {
public:
    virtual IKORProperty* NewProperty(char const* name) = 0;
    virtual IKORProperty* NewPropertyBagProperty(char const* name) = 0;
    virtual bool CopyProperties(IKORPropertyBag const*) = 0;
    virtual IKORProperty const* GetProperty(char const* name) const = 0;
    virtual IKORProperty* GetProperty(char const* name) = 0;
    virtual IKORProperty const* GetProperty(long index) const = 0;
    virtual IKORProperty* GetProperty(long index) = 0;
    virtual long Size() const = 0;
    virtual bool DeleteProperty(char const* name) = 0;
    virtual bool DeleteProperty(long index) = 0;
    virtual void Clear() = 0;
    virtual void PropertiesHaveChanged(IKORProperty*, KORPropChange) = 0;
    virtual void SetEnableCallbacks(bool) = 0;
    virtual ~IKORPropertyBag() = default;
};
class KORPropertyBag : public IKORPropertyBag {  // value type: deep copy; iterative destruction; name compare exact
public:
    KORPropertyBag();
    KORPropertyBag(KORPropertyBag const&);
    KORPropertyBag& operator=(KORPropertyBag const&);
    ~KORPropertyBag() override;
    IKORProperty* NewProperty(char const*) override;
    IKORProperty* NewPropertyBagProperty(char const*) override;
    bool CopyProperties(IKORPropertyBag const*) override;
    IKORProperty const* GetProperty(char const*) const override;
    IKORProperty* GetProperty(char const*) override;
    IKORProperty const* GetProperty(long) const override;
    IKORProperty* GetProperty(long) override;
    long Size() const override;
    bool DeleteProperty(char const*) override;
    bool DeleteProperty(long) override;
    void Clear() override;
    void PropertiesHaveChanged(IKORProperty*, KORPropChange) override;
    void SetEnableCallbacks(bool) override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
