/* A program that knows kerm_util only through its installed headers and
 * pkg-config file or CMake package: it also reaches cJSON and libuuid, which
 * are part of the library's API, without naming them on its link line. */
#include <stdio.h>
#include <string.h>

#include <cjson/cJSON.h>

#include "kerm_log.h"
#include "kerm_uuid.h"
/* libuuid's own header beside ours: uuid_t must not be declared twice. */
#include <uuid/uuid.h>

int main(void) {
    char head[VASK_LOG_HEAD_SIZE];
    cJSON *root;
    const cJSON *hw;
    uuid_t id, back;
    struct uuid fields;

    if (vask_log_gen_head(0x53, VASK_LOG_WARNING, head, sizeof head, "f", "main", 1) != 1) return 1;
    if (strcmp(head, "VASK53") != 0) return 2;

    root = cJSON_Parse("{\"platform\":{\"hw_str\":\"board-a\"}}");
    if (root == NULL) return 3;
    hw = cJSON_GetObjectItem(cJSON_GetObjectItem(root, "platform"), "hw_str");
    if (!cJSON_IsString(hw) || strcmp(hw->valuestring, "board-a") != 0) return 4;
    cJSON_Delete(root);

    uuid_generate(id);
    uuid_unpack(id, &fields);
    if (fields.clock_seq >> 14 != 2) return 5; /* RFC 4122 variant */
    uuid_pack(&fields, back);
    if (memcmp(id, back, sizeof id) != 0) return 6;
    uuid_generate_random(id);
    uuid_unpack(id, &fields);
    if (fields.time_hi_and_version >> 12 != 4) return 7;

    puts("consumer ok");
    return 0;
}
