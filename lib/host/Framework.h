#pragma once

// The host application's framework types. A Windows host brings MFC; elsewhere a small portable
// layer with the same names and semantics stands in for the few types the library and its hosts use.
#if defined(_WIN32)
#include <afx.h>
#include <afxtempl.h>
#else
#include "host/portable/Exception.h"
#include "host/portable/List.h"
#include "host/portable/Object.h"
#include "host/portable/String.h"
#include "host/portable/Types.h"
#endif
