#include <velt/Config.h>

#include <utility>

namespace VELT {

void ConfigEmailAddress::Setup(std::string& text) {
    groupsKnown = false;
    address = std::move(text);
    groups.clear();
}

}  // namespace VELT
