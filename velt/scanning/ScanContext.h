// ScanContext: what a session hands to a scan; ScanOutput: what one scan of one identity gave; and the session's
// attributes in the lazy form in which the engines read them.
// Owner: the session; a context outlives the scanner made from it, an output outlives both. Thread: the session's.
#pragma once

#include <string>
#include <vector>

#include <eFabric/Policy.h>
#include <velt/Export.h>

namespace VELT {

class Connection;
class ScannerStream;

// The session's attributes as a property bag. Nothing is computed until someone reads; a session that adds nothing is
// asked again at each read.
class VELT_API ScanConnectionAttributes : public KORPropertyBag {
public:
    explicit ScanConnectionAttributes(Connection* connection);
    ~ScanConnectionAttributes() override;
    ScanConnectionAttributes(ScanConnectionAttributes const&) = delete;
    ScanConnectionAttributes& operator=(ScanConnectionAttributes const&) = delete;

    IKORProperty* NewProperty(char const* name) override;
    IKORProperty* NewPropertyBagProperty(char const* name) override;
    bool CopyProperties(IKORPropertyBag const* from) override;
    IKORProperty const* GetProperty(char const* name) const override;
    IKORProperty* GetProperty(char const* name) override;
    IKORProperty const* GetProperty(long index) const override;
    IKORProperty* GetProperty(long index) override;
    long Size() const override;
    bool DeleteProperty(char const* name) override;
    bool DeleteProperty(long index) override;
    void Clear() override;
    void PropertiesHaveChanged(IKORProperty* property, KORPropChange change) override;
    void SetEnableCallbacks(bool on) override;

private:
    KORPropertyBag& Filled() const;

    mutable KORPropertyBag m_inner;
    Connection* m_connection;  // must outlive every reader
};

struct VELT_API ScanContext {
    ScanContext() = default;
    ~ScanContext();
    ScanContext(ScanContext const&) = delete;
    ScanContext& operator=(ScanContext const&) = delete;

    void Reset();  // ready for the next item; deletes the attributes if they are still here

    Connection* connection = nullptr;
    ScannerStream* data = nullptr;                              // the content; not owned
    InternedString policy;                                      // null: none set
    std::vector<InternedString> identities;                     // one scan each; a null element means no identity
    KORPropertyBag properties;                                  // such as "ES_CONTEXT_HTTP"; the engines see them
    ScanConnectionAttributes* connection_attributes = nullptr;  // owned while it stays here; may be null
};

struct VELT_API ScanOutput {
    ScanOutput() = default;
    virtual ~ScanOutput() = default;
    ScanOutput(ScanOutput const&) = delete;
    ScanOutput& operator=(ScanOutput const&) = delete;

    IScanResultHandler const* result = nullptr;  // the verdict; owned by the derived output, if there is one
    InternedString identity;
    KORPropertyBag properties;        // as they stand after the scan
    bool output_in_input = false;     // the content after the scan is in the input stream
    bool input_modified = false;      // the scan changed the input stream
    ScannerStream* output = nullptr;  // the content after the scan; not owned here
};

}  // namespace VELT
