#include <system/UUID.h>

#include <uuid/uuid.h>

std::string UUID::get() {
    uuid_t bytes;
    ::uuid_generate_random(bytes);
    char text[37];
    ::uuid_unparse_lower(bytes, text);
    return text;
}
