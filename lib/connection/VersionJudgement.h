#pragma once

#include "host/Framework.h"

// Whether the proxy's "version" text names a proxy that serves the connection itself. The text is
// read by character position, not parsed: the dotted version's major and minor digits at 0 and 2,
// the embedded proxy version's digits at 14 and 16 (as in "1.0.0-lxproxy-2.1").
bool IsServedThroughProxy(const CString& version);
