# For those who type make: hands everything to CMake.
#   make [PG_CONFIG=/path/to/pg_config]
#   make install [DESTDIR=...]
#   make installcheck             on a running server that has the extension; PGHOST, PGPORT, PGUSER say which
PG_CONFIG ?= pg_config
build := build/make

all:
	cmake -S . -B $(build) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF -DPG_CONFIG="$$(command -v $(PG_CONFIG))"
	cmake --build $(build)

install: all
	cmake --install $(build)

installcheck: all
	cmake --build $(build) --target installcheck

clean:
	rm -rf $(build)

.PHONY: all install installcheck clean
