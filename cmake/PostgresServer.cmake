# Finds the PostgreSQL server through pg_config (choose one with -DPG_CONFIG=...) and declares the
# interface target PostgresServer: its headers, as system headers, so that only our own code is held to
# the warnings.
find_program(PG_CONFIG pg_config REQUIRED)

function(ask_pg_config what variable)
    execute_process(
        COMMAND ${PG_CONFIG} --${what}
        OUTPUT_VARIABLE response OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE failed)
    if(failed)
        message(FATAL_ERROR "${PG_CONFIG} --${what} failed")
    endif()
    set(${variable} "${response}" PARENT_SCOPE)
endfunction()

ask_pg_config(version PG_VERSION)
ask_pg_config(includedir-server PG_INCLUDE_SERVER)
ask_pg_config(pkglibdir PG_PKGLIBDIR)
ask_pg_config(sharedir PG_SHAREDIR)
ask_pg_config(bindir PG_BINDIR)
ask_pg_config(pgxs PG_REGRESS)
string(REPLACE /makefiles/pgxs.mk /test/regress/pg_regress PG_REGRESS ${PG_REGRESS})
message(STATUS "Building for ${PG_VERSION} (${PG_CONFIG})")
if(NOT EXISTS ${PG_INCLUDE_SERVER}/postgres.h)
    message(FATAL_ERROR "The server's headers are missing (Debian: postgresql-server-dev-NN)")
endif()

add_library(PostgresServer INTERFACE)
target_include_directories(PostgresServer SYSTEM INTERFACE ${PG_INCLUDE_SERVER})
