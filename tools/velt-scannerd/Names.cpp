#include "Names.h"

namespace scannerd {

bool Names::Take(std::string const& name) {
    std::lock_guard const hold(m_lock);
    if (m_names.contains(name)) return true;
    if (m_names.size() >= m_mostNames || name.size() > m_mostBytes - m_bytes) return false;
    m_names.insert(name);
    m_bytes += name.size();
    return true;
}

}  // namespace scannerd
