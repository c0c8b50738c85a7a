// protos.h: the rooms of the tree, all at once.
#pragma once

#include "database/dbrecord.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/tree/climb.h"
#include "database/index/tree/delete.h"
#include "database/index/tree/descend.h"
#include "database/index/tree/find.h"
#include "database/index/tree/insert.h"
#include "database/index/tree/key.h"
#include "database/index/tree/link.h"
#include "database/index/tree/node.h"
#include "database/index/tree/nodesearch.h"
#include "database/index/tree/position.h"
#include "database/index/tree/repoint.h"
