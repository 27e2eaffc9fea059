/* The one declaration of this system header that the client uses: the cross compiler's headers
   lack it. For compiling only. */
#pragma once

#include <sys/types.h>
#include <uuid/uuid.h>

#ifdef __cplusplus
extern "C" {
#endif

int mbr_uid_to_uuid(uid_t user, uuid_t identity);

#ifdef __cplusplus
}
#endif
