#include <policyloader/store/Value.h>

#include <strings.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <utility>

#include <KORtk/Text.h>
#include <policyloader/store/InternPool.h>

namespace policyloader {
namespace {

struct Flag {
    char const* text;
    bool value;
};
constexpr Flag Flags[] = {{"1", true},   {"0", false},  {"true", true}, {"false", false},
                          {"yes", true}, {"no", false}, {"on", true},   {"off", false}};

template <class T>
std::optional<T> Number(std::string_view text) {
    T value{};
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool const whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional<T>(value) : std::nullopt;
}

std::optional<int> Signed(std::string_view text) {
    bool const plus = text.size() > 1 && text[0] == '+' && text[1] != '-';
    return Number<int>(plus ? text.substr(1) : text);
}

std::optional<bool> Boolean(char const* text) {
    for (auto const& flag : Flags)
        if (::strcasecmp(text, flag.text) == 0) return flag.value;
    return std::nullopt;
}

// Wide texts are interned as well.
std::array<void const*, 3> PartsOf(std::optional<eFabric::ProductAlertValue> const& alert) {
    if (!alert) return {};
    return {alert->body, alert->header, alert->footer};
}

}  // namespace

Value Value::Scalar(std::string_view text) {
    Value value;
    value.m_text = InternPool::process().intern(text).c_str();
    value.m_int = Signed(text);
    value.m_unsigned = Number<unsigned>(text);
    value.m_bool = Boolean(value.m_text);
    auto const* const body = InternPool::process().internWide(KORtk::Utf8Array(value.m_text).wstr());
    value.m_alert = eFabric::ProductAlertValue{body, nullptr, nullptr};
    return value;
}

Value Value::List(std::vector<Value> items) {
    Value value;
    value.m_list = true;
    value.m_items = std::move(items);
    return value;
}

Value Value::Alert(eFabric::ProductAlertValue alert) {
    Value value;
    value.m_alert = alert;
    return value;
}

unsigned Value::size() const { return m_list ? static_cast<unsigned>(m_items.size()) : 1; }

eFabric::IProductValue const* Value::at(unsigned index) const {
    if (index >= size()) return nullptr;
    return m_list ? &m_items[index] : this;
}

bool Value::getString(char const** out) const {
    if (m_text) *out = m_text;
    return m_text != nullptr;
}

std::size_t Value::hash() const {
    std::hash<void const*> const of;
    std::size_t hash = of(m_text) + m_items.size();
    for (auto const* const part : PartsOf(m_alert)) hash = hash * 31 + of(part);
    for (auto const& item : m_items) hash = hash * 31 + item.hash();
    return hash;
}

bool operator==(Value const& x, Value const& y) {
    return x.m_text == y.m_text && x.m_list == y.m_list && PartsOf(x.m_alert) == PartsOf(y.m_alert) &&
           x.m_items == y.m_items;
}

std::optional<double> Value::real() const {
    auto const value = m_text ? Number<double>(m_text) : std::nullopt;
    return value && std::isfinite(*value) ? value : std::nullopt;
}

}  // namespace policyloader
