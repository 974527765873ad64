// Value: one value of the store: a text with all its readings, a list of texts, or an alert.
// Owner: the snapshot. Immutable, any thread; readings are worked out when it is made. Texts are interned.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include <eFabric/Policy.h>

namespace policyloader {

class Value final : public eFabric::IProductValue {
public:
    static Value Scalar(std::string_view text);
    static Value List(std::vector<Value> items);
    static Value Alert(eFabric::ProductAlertValue alert);  // texts interned

    unsigned size() const override;
    IProductValue const* at(unsigned index) const override;
    bool getInt(int* out) const override { return Give(m_int, out); }
    bool getBool(bool* out) const override { return Give(m_bool, out); }
    bool getUnsigned(unsigned* out) const override { return Give(m_unsigned, out); }
    bool getString(char const** out) const override;
    bool getAlert(eFabric::ProductAlertValue* out) const override { return Give(m_alert, out); }

    std::optional<double> real() const;
    char const* text() const { return m_text; }  // null: no scalar
    std::vector<Value> const& items() const { return m_items; }

    // By form and texts: of equal values all readings are equal.
    std::size_t hash() const;
    friend bool operator==(Value const& x, Value const& y);

private:
    Value() = default;

    template <class T>
    static bool Give(std::optional<T> const& reading, T* out) {
        if (reading) *out = *reading;
        return reading.has_value();
    }

    char const* m_text = nullptr;
    std::optional<int> m_int;
    std::optional<unsigned> m_unsigned;
    std::optional<bool> m_bool;
    std::optional<eFabric::ProductAlertValue> m_alert;
    bool m_list = false;
    std::vector<Value> m_items;
};

}  // namespace policyloader
