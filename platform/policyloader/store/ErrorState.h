// ErrorState: the last error of a framework object, with named attributes.
// Owner: the object that reports it. Thread: the owner's; a const one may be read from any. Nothing here fails.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <eFabric/Error.h>

namespace policyloader {

class ErrorState final : public IKORError {
public:
    void Clear();
    void Set(KORErrorLevel level, unsigned long code, std::string const& text, std::string const& detail = {});
    void SetAttribute(std::string name, std::string value);  // replaces one of this name

    bool IsSet() const override { return m_set; }
    unsigned long GetCode() const override { return m_code; }
    int GetLevel() const override { return m_level; }
    wchar_t const* GetText() const override { return m_text.c_str(); }
    wchar_t const* GetDetail() const override { return m_detail.c_str(); }
    char const* GetAttribute(char const* name) const override;
    char const* FirstAttribute(long& pos) const override;
    char const* NextAttribute(long& pos) const override;

private:
    bool m_set = false;
    KORErrorLevel m_level = KORError_Info;
    unsigned long m_code = 0;
    std::wstring m_text;
    std::wstring m_detail;
    std::vector<std::pair<std::string, std::string>> m_attributes;  // in order of setting
};

}  // namespace policyloader
