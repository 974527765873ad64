#include <velt/config_details/vector.h>

#include <velt/config_details/internals.h>

namespace VELT::config_types::detail {

void ThrowOutOfRange(std::size_t index, std::size_t size, char const* function) {
    // The place is part of the message that log readers know, and does not move with this file.
    throw out_of_range_error(KORtk::Location{"../../../comp/lib/velt/config_details/vector.cc", 157, function},
                             std::to_string(index) + " >= " + std::to_string(size));
}

bool mock_vector_cfg<unsigned short, unsigned int>::convert(eFabric::IProductValue const& element,
                                                            unsigned short& out) {
    raw_type raw = 0;
    if (!element.getUnsigned(&raw)) return false;
    out = config_helper::detail::NarrowToShort(raw);
    return true;
}

bool mock_vector_cfg<CharBuf, char const*>::convert(eFabric::IProductValue const& element, CharBuf& out) {
    return config_helper::detail::ReadText(element, out);
}

}  // namespace VELT::config_types::detail
