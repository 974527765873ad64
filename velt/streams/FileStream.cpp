#include <velt/streams/FileStream.h>

namespace VELT {

FileStream::~FileStream() = default;

}  // namespace VELT
