// What the probes share: the definition of an SQL-callable function.
#pragma once

#include "quelmoraPgServer.h"

#define PROBE(name)                                                                                          \
    extern "C" {                                                                                             \
    PG_FUNCTION_INFO_V1(name);                                                                               \
    }                                                                                                        \
    extern "C" Datum name(PG_FUNCTION_ARGS)
