// Property bags: the typed name/value records that pass between a host, the library and the scan engines.
// A property has one type and any number of elements of it; text has a narrow (UTF-8) and a wide form.
// Owner: a bag owns its properties, a property owns the bags that are its values. Pointers to a property stay good
// until it is deleted, or its bag is cleared, assigned to or destroyed. Threads: one at a time; reading from several is
// safe while nobody writes, as every view is made when the value is set. Failure: nothing here throws but
// std::bad_alloc. Getters answer false or null for another type, or beyond the count. `GetProperty(0)` and
// `DeleteProperty(0)` are ambiguous (index or null name): write `0L`.
#pragma once

#include <memory>

#include <Export.h>

enum class KORPropChange { Added, Changed, Deleted, Cleared };
enum KORPropType : int {
    KORProp_None = 0,  // made, nothing set yet
    KORProp_String = 1,
    KORProp_Long = 2,
    KORProp_ULong = 3,
    KORProp_Double = 4,
    KORProp_Bag = 5
};

class IKORPropertyBag;

// Set...: replaces all elements by this one and sets the type. Add...: appends; on another type it empties first.
// A null text counts as the empty one. SetBag and AddBag take the bag over; null makes an empty bag.
// Get... reads the first element, Get...At the element of that index. A text is kept in the form in which it was set.
// GetNarrow and GetWide give the decimal text of a number; returned texts live as long as the element.
class VELTPLATFORM_API IKORProperty {
public:
    virtual int GetType() const = 0;  // a KORPropType
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

class VELTPLATFORM_API IKORPropertyBag {
public:
    // A name that exists already: that property is emptied and returned, never a second one made. Null name: null.
    virtual IKORProperty* NewProperty(char const* name) = 0;
    virtual IKORProperty* NewPropertyBagProperty(char const* name) = 0;  // its value is an empty bag
    // Deep copies, appended or put in place of the same name. False, and nothing done, for null.
    virtual bool CopyProperties(IKORPropertyBag const*) = 0;
    // Names are compared byte for byte; an index counts in order of making. Null when there is none.
    virtual IKORProperty const* GetProperty(char const* name) const = 0;
    virtual IKORProperty* GetProperty(char const* name) = 0;
    virtual IKORProperty const* GetProperty(long index) const = 0;
    virtual IKORProperty* GetProperty(long index) = 0;
    virtual long Size() const = 0;
    virtual bool DeleteProperty(char const* name) = 0;
    virtual bool DeleteProperty(long index) = 0;
    virtual void Clear() = 0;
    // Called on the owning bag after each change, once SetEnableCallbacks(true) was called on it. Deleted: the property
    // is out of the bag and is destroyed after the call. Cleared: the property is null.
    virtual void PropertiesHaveChanged(IKORProperty*, KORPropChange) = 0;
    virtual void SetEnableCallbacks(bool) = 0;
    virtual ~IKORPropertyBag() = default;
};

// KORPropertyBag: the bag itself, a value: copying copies all depths, and reads foreign bags through their interface.
// Destruction takes no stack for nested bags, however deep. Look-up by name walks a small
// bag; a large one has an index, as names come from the wire and nobody limits their number.
// A copy has its callbacks off; assignment leaves those of the target as they are and reports Cleared, then each Added.
class VELTPLATFORM_API KORPropertyBag : public IKORPropertyBag {
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
    void PropertiesHaveChanged(IKORProperty*, KORPropChange) override;  // nothing; for derived classes
    void SetEnableCallbacks(bool) override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
