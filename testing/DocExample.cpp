#include "testing/DocExample.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace velt_testing {

std::string DocExample(std::string const& page, std::string const& language) {
    std::ifstream in(page, std::ios::binary);
    std::string const text{std::istreambuf_iterator<char>(in), {}};
    std::string const fence = "\n```" + language + "\n";
    std::size_t const begin = text.find(fence);
    if (begin == text.npos) throw std::runtime_error(page + ": no example in " + language);
    std::size_t const first = begin + fence.size();
    return text.substr(first, text.find("\n```", first) + 1 - first);
}

}  // namespace velt_testing
