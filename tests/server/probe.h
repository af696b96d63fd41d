// What the probes share: the definition of an SQL-callable function.
#pragma once

extern "C" {
#include "postgres.h"

#include "fmgr.h"
#include "nodes/execnodes.h"
#include "nodes/makefuncs.h"
#include "utils/builtins.h"
#include "utils/rel.h"
#include "utils/relcache.h"
}

#define PROBE(name)                                                                                          \
    extern "C" {                                                                                             \
    PG_FUNCTION_INFO_V1(name);                                                                               \
    }                                                                                                        \
    extern "C" Datum name(PG_FUNCTION_ARGS)
