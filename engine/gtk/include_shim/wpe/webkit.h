// The service-side sources shared with the WPE port include the WPE WebKit
// header; built for WebKitGTK they get the same API family (webkit2gtk-4.1)
// through this header, which that build puts first on the include path.
#pragma once

#include <webkit2/webkit2.h>
