// Replacements: fills the placeholders of an alert's text from a map of names to values.
// A key is a placeholder's name, bare (NAME) or with its marks (%NAME%); in the text it stands with its marks. Entries
// run in the order of the keys, and each goes over the whole text: a value that holds the mark of a later key is
// filled in turn, one with an earlier key stays as it is, and one with its own key does not loop.
// Owner: nothing is kept. Threads: any. Failure: none; a placeholder without an entry stays in the text.
#pragma once

#include <eFabric/Policy.h>
#include <eFabric/Property.h>

#include <boost/optional.hpp>

#include <map>
#include <string>

#include <velt/Export.h>

namespace VELT {

namespace config_types {

// An alert as a setting has it; its texts belong to the store.
struct VELT_API html_alert {
    boost::optional<eFabric::ProductAlertValue> value;
    std::wstring none;  // stands for each of the three that is missing

    wchar_t const* body() const { return Text(&eFabric::ProductAlertValue::body); }
    wchar_t const* header() const { return Text(&eFabric::ProductAlertValue::header); }
    wchar_t const* footer() const { return Text(&eFabric::ProductAlertValue::footer); }

private:
    wchar_t const* Text(wchar_t const* eFabric::ProductAlertValue::*part) const {
        return value && (*value).*part ? (*value).*part : none.c_str();
    }
};

}  // namespace config_types

class VELT_API Replacements {
public:
    // A value in its wide form, made from UTF-8.
    struct VELT_API Converter {
        Converter() = default;
        Converter(char const* utf8);
        Converter(std::string const& utf8);

        std::wstring text;
    };
    using Map = std::map<std::wstring, Converter>;

    // Both give the number of replacements made.
    static int customiseText(Map const& replacements, std::wstring& text);
    // `text` becomes the alert's body. Its header and footer come where the body has %ALERTHEADER% and %ALERTFOOTER%,
    // and nowhere in a body without these marks.
    static int customiseText(Map const& replacements, config_types::html_alert const& alert, std::wstring& text);

    // One property of each entry, under its key as it stands, marks included; gives their number.
    static int fillPropertyBag(Map const& replacements, IKORPropertyBag& bag);
};

}  // namespace VELT
