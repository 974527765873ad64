#include <velt/scanning/StreamTransport.h>

#include <limits>

namespace VELT {

namespace {

// Elements that fit into one call of the stream, whose counts are 32 bits wide.
unsigned Bytes(unsigned long count, unsigned elementSize) {
    unsigned long const most = static_cast<unsigned long>(std::numeric_limits<int>::max()) / elementSize;
    return static_cast<unsigned>((count < most ? count : most) * elementSize);
}

}  // namespace

StreamTransport::StreamTransport(ScannerStream& scannerStream) : stream(&scannerStream) { setBaseSize(); }

void StreamTransport::setBaseSize() {
    switch (base) {
        case eFabric::Base_Byte:
        case eFabric::Base_Text:
            base_size = 1;
            break;
        case eFabric::Base_Wide:
            base_size = 4;
            break;
        case eFabric::Base_None:
            base_size = 0;
            break;
    }
}

bool StreamTransport::get(unsigned char& byte) {
    unsigned got = 0;
    return stream->read(reinterpret_cast<char*>(&byte), 1, &got) == 0 && got == 1;
}

bool StreamTransport::put(unsigned char byte) {
    if (read_only) return false;
    modified = true;
    unsigned put = 0;
    return stream->write(reinterpret_cast<char const*>(&byte), 1, &put) == 0 && put == 1;
}

unsigned long StreamTransport::read(unsigned char* buffer, unsigned long count) {
    if (base_size == 0) return 0;
    unsigned got = 0;
    if (stream->read(reinterpret_cast<char*>(buffer), Bytes(count, base_size), &got) != 0) return 0;
    return got / base_size;
}

unsigned long StreamTransport::write(unsigned char const* data, unsigned long count) {
    if (read_only || base_size == 0) return 0;
    modified = true;
    unsigned put = 0;
    if (stream->write(reinterpret_cast<char const*>(data), Bytes(count, base_size), &put) != 0) return 0;
    return put / base_size;
}

bool StreamTransport::close() { return true; }

bool StreamTransport::CanSeekTell() { return true; }

bool StreamTransport::CanReportLength() { return true; }

bool StreamTransport::seek(unsigned long position) {
    if (position > size()) return false;
    return stream->seek(static_cast<long>(position), 0) == static_cast<long>(position);
}

unsigned long StreamTransport::tell() { return static_cast<unsigned long>(stream->seek(0, 1)); }

unsigned long StreamTransport::size() { return stream->size(); }

bool StreamTransport::seteof() { return setsize(tell()); }

bool StreamTransport::setsize(unsigned long size) {
    return size <= std::numeric_limits<unsigned>::max() && stream->setsize(static_cast<unsigned>(size));
}

void StreamTransport::SetRecommendedBase(eFabric::RecommendedBaseType wanted) {
    if (wanted == eFabric::Base_None) return;
    base = wanted;
    setBaseSize();
}

eFabric::RecommendedBaseType StreamTransport::GetRecommendedBase() { return base; }

bool StreamTransport::IsReadOnly() { return read_only; }

bool StreamTransport::IsModified() { return modified; }

void StreamTransport::SetReadOnly(bool on) { read_only = on; }

IKORPropertyBag* StreamTransport::GetPropertyBag() { return external_bag ? external_bag : &bag; }

}  // namespace VELT
