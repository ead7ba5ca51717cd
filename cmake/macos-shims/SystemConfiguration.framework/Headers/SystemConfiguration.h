// The one SystemConfiguration call the program makes, declared as Apple documents it, for the
// macOS compile check when its SDK has no SystemConfiguration.framework. A Mac's own SDK has the
// whole framework and this folder is then not searched.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

typedef const struct __SCDynamicStore* SCDynamicStoreRef;

CF_EXTERN_C_BEGIN
CFStringRef SCDynamicStoreCopyComputerName(SCDynamicStoreRef store, CFStringEncoding* nameEncoding);
CF_EXTERN_C_END
