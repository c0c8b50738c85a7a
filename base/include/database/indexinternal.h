// indexinternal.h: umbrella over what the rooms of the index module show each other. A room
// includes the headers of the rooms that it uses; this one is for tests and for whoever looks
// around.
#pragma once

#include "database/dbrecord.h"
#include "database/index.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/rows/rows.h"
#include "database/index/schema/definition.h"
#include "database/index/schema/description.h"
#include "database/index/schema/names.h"
#include "database/index/schema/open.h"
#include "database/index/schema/store.h"
#include "database/index/schema/version.h"
#include "database/index/tree/protos.h"
#include "nim/nim.h"
