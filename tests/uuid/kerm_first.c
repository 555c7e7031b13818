#include "kerm_uuid.h"
#include <uuid/uuid.h>

/* Parses through libuuid and unpacks through kerm_util, in one unit. */
int kerm_first_parse_unpack(const char *text, struct uuid *fields) {
    uuid_t packed;
    if (uuid_parse(text, packed) != 0) return -1;
    uuid_unpack(packed, fields);
    return 0;
}
