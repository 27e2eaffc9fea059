/* The one declaration of this system framework that the client uses: the cross compiler's headers
   lack it. For compiling only. */
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int OSStatus;

OSStatus LSRegisterURL(CFURLRef url, Boolean update);

#ifdef __cplusplus
}
#endif
