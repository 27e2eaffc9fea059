/* The few declarations of this system framework that the client uses: the cross compiler's
   headers lack it. For compiling only. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char UInt8;
typedef unsigned char Boolean;
typedef long CFIndex;
typedef unsigned long CFOptionFlags;
typedef unsigned int CFStringEncoding;
typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef struct __CFString* CFMutableStringRef;
typedef const struct __CFLocale* CFLocaleRef;
typedef const struct __CFURL* CFURLRef;
typedef struct {
  CFIndex location;
  CFIndex length;
} CFRange;

enum { kCFStringEncodingUTF8 = 0x08000100 };
typedef CFIndex CFStringNormalizationForm;
enum { kCFStringNormalizationFormD = 0 };
typedef CFOptionFlags CFStringCompareFlags;
enum { kCFCompareCaseInsensitive = 1 };

void CFRelease(CFTypeRef value);
CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8* path, CFIndex count,
                                                 Boolean directory);
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean external);
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maximum, CFStringRef text);
void CFStringNormalize(CFMutableStringRef text, CFStringNormalizationForm form);
void CFStringFold(CFMutableStringRef text, CFStringCompareFlags flags, CFLocaleRef locale);
CFIndex CFStringGetLength(CFStringRef text);
CFIndex CFStringGetBytes(CFStringRef text, CFRange range, CFStringEncoding encoding, UInt8 loss, Boolean external,
                         UInt8* buffer, CFIndex bound, CFIndex* used);

#ifdef __cplusplus
}
#endif
