#include <uuid/uuid.h>
#include "kerm_uuid.h"

/* Packs through kerm_util and unparses through libuuid, in one unit. */
void uuid_first_pack_unparse(const struct uuid *fields, char *text) {
    uuid_t packed;
    uuid_pack(fields, packed);
    uuid_unparse_lower(packed, text);
}
