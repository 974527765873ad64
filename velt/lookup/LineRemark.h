// LineRemark: what a reader of a line file has to say of one line, for tools that tell the administrator. A gateway
// never asks for it. Value; the texts are literals.
#pragma once

namespace VELT {

struct LineRemark {
    char const* reason = nullptr;  // why the line is dropped, or what is odd about it; null: nothing to say
    char const* at = nullptr;      // the place in the line
};

}  // namespace VELT
