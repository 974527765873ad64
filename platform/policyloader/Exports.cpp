// What libpolicyloader.so exports.
#include <eFabric/Policy.h>
