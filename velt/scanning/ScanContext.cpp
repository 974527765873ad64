#include <velt/scanning/ScanContext.h>

#include <velt/connection/Connection.h>

namespace VELT {

ScanContext::~ScanContext() { delete connection_attributes; }

void ScanContext::Reset() {
    connection = nullptr;
    data = nullptr;
    policy = InternedString();
    identities.clear();
    properties.Clear();
    delete connection_attributes;
    connection_attributes = nullptr;
}

ScanConnectionAttributes::ScanConnectionAttributes(Connection* connection) : m_connection(connection) {}

ScanConnectionAttributes::~ScanConnectionAttributes() = default;

KORPropertyBag& ScanConnectionAttributes::Filled() const {
    if (m_inner.Size() == 0) m_connection->getConnectionAttributes(&m_inner);
    return m_inner;
}

IKORProperty* ScanConnectionAttributes::NewProperty(char const* name) { return m_inner.NewProperty(name); }

IKORProperty* ScanConnectionAttributes::NewPropertyBagProperty(char const* name) {
    return m_inner.NewPropertyBagProperty(name);
}

bool ScanConnectionAttributes::CopyProperties(IKORPropertyBag const* from) { return Filled().CopyProperties(from); }

IKORProperty const* ScanConnectionAttributes::GetProperty(char const* name) const { return Filled().GetProperty(name); }

IKORProperty* ScanConnectionAttributes::GetProperty(char const* name) { return Filled().GetProperty(name); }

IKORProperty const* ScanConnectionAttributes::GetProperty(long index) const { return Filled().GetProperty(index); }

IKORProperty* ScanConnectionAttributes::GetProperty(long index) { return Filled().GetProperty(index); }

long ScanConnectionAttributes::Size() const { return Filled().Size(); }

bool ScanConnectionAttributes::DeleteProperty(char const* name) { return m_inner.DeleteProperty(name); }

bool ScanConnectionAttributes::DeleteProperty(long index) { return m_inner.DeleteProperty(index); }

void ScanConnectionAttributes::Clear() { m_inner.Clear(); }

void ScanConnectionAttributes::PropertiesHaveChanged(IKORProperty* property, KORPropChange change) {
    m_inner.PropertiesHaveChanged(property, change);
}

void ScanConnectionAttributes::SetEnableCallbacks(bool on) { m_inner.SetEnableCallbacks(on); }

}  // namespace VELT
