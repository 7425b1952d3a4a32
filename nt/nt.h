#pragma once

// The kernel stand-in as a driver sees it: all families. On the NT home the driver's nt.h is a shim over the kernel's
// own headers instead; both offer the same names.

#include "nt/base.h"
#include "nt/errlog.h"
#include "nt/ex.h"
#include "nt/file_info.h"
#include "nt/files.h"
#include "nt/fsrtl.h"
#include "nt/io.h"
#include "nt/ke.h"
#include "nt/mm.h"
#include "nt/object.h"
#include "nt/ps.h"
#include "nt/registry.h"
#include "nt/rtl.h"
#include "nt/section.h"
#include "nt/token.h"
#include "nt/user_token.h"
