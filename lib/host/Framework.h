#pragma once

// The host application's framework types: MFC, when the library is built for MFC hosts (the
// build defines TRI_HOST_FRAMEWORK_MFC for the library and its hosts alike); otherwise a small
// portable layer with the same names and semantics for the few types the library and hosts use.
#if defined(TRI_HOST_FRAMEWORK_MFC)
#include <afx.h>
#include <afxtempl.h>
#else
#include "host/portable/Exception.h"
#include "host/portable/List.h"
#include "host/portable/Object.h"
#include "host/portable/String.h"
#include "host/portable/Types.h"
#endif
